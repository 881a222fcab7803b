#include "FuzzMain.h"

CT_FUZZ_HARNESS(chronotick::fuzz::runRawDecoder)
