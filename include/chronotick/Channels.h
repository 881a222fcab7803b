#pragma once

// Channels of the library; each class has a header of its own.
#include <chronotick/ConstantFractionDiscriminator.h>
#include <chronotick/FrequencyMultiplier.h>
#include <chronotick/EventGenerator.h>
