#pragma once

// The process-wide list of simulated boards behind chronotick/Simulation.h and
// simulatedLinkProvider(). Internal to the library.

#include "simulation/SimulatedBoard.h"

#include <memory>
#include <string>

namespace chronotick::simulation {

// The board with this serial, or null; "" gives the first one added.
std::shared_ptr<SimulatedBoard> findBoard(const std::string &serial);

} // namespace chronotick::simulation
