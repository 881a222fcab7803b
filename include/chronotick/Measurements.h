#pragma once

// Measurements of the library; each class has a header of its own.
#include <chronotick/FastBinning.h>
