// The hardware front door: taggers shared by serial and by the default
// instance, reference counts, the board list and the firmware override.

#include <chronotick/Chronotick.h>
#include <chronotick/Simulation.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

namespace chronotick {
namespace {

using testing::LogCapture;

// Two boards of their own; every tagger is freed afterwards.
class HardwareEntry : public ::testing::Test {
protected:
  void SetUp() override {
    simulation::removeAllBoards(); // "" takes the first board listed: this suite's
    simulation::BoardSpec spec;
    spec.serial = "entry-ultra";
    ultra = simulation::addBoard(spec);
    spec.serial = "entry-20";
    spec.model = "CT-20";
    spec.hardware_version = 2;
    ct20 = simulation::addBoard(spec);
    simulation::setRealTime(ultra, false);
    simulation::setRealTime(ct20, false);
  }
  void TearDown() override {
    freeAllChronotick();
    setCustomBitFileName("");
    simulation::removeAllBoards();
  }
  std::string ultra, ct20;
};

std::string runtimeMessage(const std::function<void()> &call) {
  try {
    call();
  } catch (const std::runtime_error &e) {
    return e.what();
  }
  return "";
}

TEST_F(HardwareEntry, ScanListsTheBoardsAndModelsNeedNoTagger) {
  const std::vector<std::string> serials = scanChronotick();
  EXPECT_NE(std::find(serials.begin(), serials.end(), ultra), serials.end());
  EXPECT_NE(std::find(serials.begin(), serials.end(), ct20), serials.end());
  EXPECT_EQ(getChronotickModel(ct20), "CT-20");
  EXPECT_EQ(getChronotickModel(ultra), "CT-Ultra");
}

TEST_F(HardwareEntry, TaggersAreSharedAndCounted) {
  Chronotick *a = createChronotick(ultra);
  ChronotickBase *base = a;
  EXPECT_EQ(createChronotick(ultra), a);
  // The default instance is the first board's tagger: shared with the explicit serial.
  Chronotick *by_default = createChronotick("");
  EXPECT_EQ(by_default, a);
  EXPECT_EQ(createChronotick(""), a);
  EXPECT_EQ(getChronotickModel(ultra), "CT-Ultra"); // asks the tagger, which holds the board

  EXPECT_FALSE(freeChronotick(base));
  EXPECT_FALSE(freeChronotick(base));
  EXPECT_FALSE(freeChronotick(base));
  EXPECT_TRUE(freeChronotick(base)); // the fourth reference was the last
  EXPECT_FALSE(freeChronotick(base));

  Chronotick *other = createChronotick(ct20);
  ChronotickBase *other_base = other;
  EXPECT_EQ(other->getModel(), "CT-20");
  Chronotick *fresh = createChronotick("");
  EXPECT_EQ(fresh->getSerial(), ultra);
  EXPECT_GT(fresh->getNewVirtualChannel(), 1000);
  freeAllChronotick();
  EXPECT_FALSE(freeChronotick(other_base)); // gone with the rest
  // After freeAllChronotick the default instance is built anew.
  Chronotick *again = createChronotick("");
  const std::int32_t first = again->getNewVirtualChannel();
  EXPECT_EQ(again->getNewVirtualChannel(), first + 1);
  EXPECT_TRUE(freeChronotick(again));
}

TEST_F(HardwareEntry, FailuresLeaveTheRegistryAlone) {
  // The text may go on to say why no board could be reached.
  const std::string text = "Opening of USB connection failed or device with serial 'no-such-board' not found.";
  EXPECT_EQ(runtimeMessage([] { createChronotick("no-such-board"); }).substr(0, text.size()), text);
  LogCapture log;
  setCustomBitFileName("/nonexistent/custom.bit");
  EXPECT_EQ(runtimeMessage([&] { createChronotick(ultra); }),
            "Firmware file not found - filename: '/nonexistent/custom.bit'");
  EXPECT_EQ(log.count("Loading custom bitfile '/nonexistent/custom.bit'", LOGGER_WARNING), 1);
  setCustomBitFileName("");
  Chronotick *tagger = createChronotick(ultra); // the board is free: the failed tries held nothing
  EXPECT_TRUE(freeChronotick(tagger));
}

} // namespace
} // namespace chronotick
