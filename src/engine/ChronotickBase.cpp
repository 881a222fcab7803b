#include <chronotick/ChronotickBase.h>

namespace chronotick {

ChronotickBase::~ChronotickBase() = default;

} // namespace chronotick
