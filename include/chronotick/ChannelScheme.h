#pragma once

#include <chronotick/Export.h>

namespace chronotick {

// Channel number schemes, see setChronotickChannelNumberScheme.
constexpr int CT_CHANNEL_NUMBER_SCHEME_AUTO = 0;
constexpr int CT_CHANNEL_NUMBER_SCHEME_ZERO = 1;
constexpr int CT_CHANNEL_NUMBER_SCHEME_ONE = 2;

// Process-wide requested scheme; a tagger copies it when it is built.
CHRONOTICK_API void setChronotickChannelNumberScheme(int scheme);
CHRONOTICK_API int getChronotickChannelNumberScheme();

} // namespace chronotick
