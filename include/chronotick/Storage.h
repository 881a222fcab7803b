#pragma once

// Storage of the library; each class has a header of its own.
#include <chronotick/ChronotickVirtual.h>
#include <chronotick/Dump.h>
#include <chronotick/FileReader.h>
#include <chronotick/FileWriter.h>
#include <chronotick/Library.h>
