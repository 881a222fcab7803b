// A lab's own program: it only sees the installed headers and library.
#include <chronotick/Chronotick.h>

#include <cstdio>

int main() {
  chronotick::setChronotickChannelNumberScheme(chronotick::CT_CHANNEL_NUMBER_SCHEME_ONE);
  std::printf("scheme %d\n", chronotick::getChronotickChannelNumberScheme());
  return chronotick::getChronotickChannelNumberScheme() == chronotick::CT_CHANNEL_NUMBER_SCHEME_ONE ? 0 : 1;
}
