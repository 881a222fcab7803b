#pragma once

// Channels of the library; each class has a header of its own.
#include <chronotick/Coincidence.h>
#include <chronotick/Coincidences.h>
#include <chronotick/Combiner.h>
#include <chronotick/ConstantFractionDiscriminator.h>
#include <chronotick/DelayedChannel.h>
#include <chronotick/EventGenerator.h>
#include <chronotick/FrequencyMultiplier.h>
#include <chronotick/GatedChannel.h>
