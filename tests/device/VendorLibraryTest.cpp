#include "device/BoardProtocol.h"
#include "device/ChronotickFPGA.h"
#include "device/VendorUsbLibrary.h"

#include <chronotick/Simulation.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <spawn.h>
#include <sys/wait.h>

extern char **environ;

namespace chronotick {
namespace {

// The vendor provider is loaded once per process, from the environment. The
// stand-in's tests therefore run in a child: this program again, with the
// environment set and a filter on one test, which exits with CHILD_PASSED.
constexpr int CHILD_PASSED = 77;

int runInChild(const std::string &test, const std::vector<std::string> &environment) {
  std::vector<std::string> env;
  for (char **e = environ; *e; ++e) {
    if (std::strncmp(*e, "CHRONOTICK_USB_LIBRARY=", 23) != 0 && std::strncmp(*e, "CT_STANDIN_BOARDS=", 18) != 0)
      env.emplace_back(*e);
  }
  env.insert(env.end(), environment.begin(), environment.end());
  env.emplace_back("CT_VENDOR_CHILD=1");
  std::vector<std::string> args{"/proc/self/exe", "--gtest_filter=VendorLibraryChild." + test};
  std::vector<char *> argv, envp;
  for (std::string &a : args)
    argv.push_back(a.data());
  argv.push_back(nullptr);
  for (std::string &e : env)
    envp.push_back(e.data());
  envp.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, "/proc/self/exe", nullptr, nullptr, argv.data(), envp.data()) != 0)
    return -1;
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool inChild() {
  return std::getenv("CT_VENDOR_CHILD") != nullptr;
}

void passChild() {
  if (!::testing::Test::HasFailure()) {
    std::fflush(nullptr);
    std::_Exit(CHILD_PASSED);
  }
}

#ifdef CT_USB_STANDIN
TEST(VendorLibrary, BoardsOfTheUsbLibraryComeUpAndStream) {
  EXPECT_EQ(runInChild("StandInBoards",
                       {"CHRONOTICK_USB_LIBRARY=" CT_USB_STANDIN, "CT_STANDIN_BOARDS=CT-Ultra:2301U1,CT-20:2302C2"}),
            CHILD_PASSED);
}

TEST(VendorLibraryChild, StandInBoards) {
  if (!inChild())
    GTEST_SKIP() << "runs in a child process";
  DeviceLinkProvider &usb = vendorLinkProvider();
  ASSERT_TRUE(usb.available()) << usb.unavailableReason();
  const std::vector<DeviceLinkProvider::Listed> listed = usb.list();
  ASSERT_EQ(listed.size(), 2u);
  EXPECT_EQ(listed[0].serial, "2301U1");
  EXPECT_EQ(listed[0].board_model, link::MODEL_CT_ULTRA);
  EXPECT_EQ(listed[1].serial, "2302C2");
  EXPECT_EQ(listed[1].board_model, link::MODEL_CT20);

  // Real boards come before simulated ones, and "" takes the first of them.
  simulation::BoardSpec spec;
  spec.serial = "SIM9";
  simulation::addBoard(spec);
  const std::vector<std::string> serials = ChronotickFPGA::scan();
  ASSERT_EQ(serials.size(), 3u);
  EXPECT_EQ(serials[0], "2301U1");
  EXPECT_EQ(serials[2], "SIM9");

  ChronotickFPGA first("");
  ASSERT_TRUE(first.open(false));
  EXPECT_EQ(first.serial(), "2301U1");
  EXPECT_EQ(first.model(), "CT-Ultra");
  EXPECT_EQ(first.inputs(), 18);
  EXPECT_EQ(first.version().rfind("CT-Ultra, FW 4, TS ", 0), 0u) << first.version();
  EXPECT_EQ(first.sensorReport().rfind("Serial\t2301U1\n", 0), 0u);
  EXPECT_NE(first.sensorReport().find("\n11611 12V\t12.0"), std::string::npos) << first.sensorReport();

  std::vector<std::uint32_t> words(4096);
  const long bytes = long(words.size() * 4);
  ASSERT_EQ(first.readPipe(reinterpret_cast<std::uint8_t *>(words.data()), bytes), bytes);
  int rollovers = 0;
  for (std::uint32_t w : words)
    rollovers += ((w >> 24) & 63) == board::CODE_ROLLOVER;
  EXPECT_GT(rollovers, 0); // the stream of a board without signals still counts time

  ChronotickFPGA ct20("2302C2");
  ASSERT_TRUE(ct20.open(false));
  EXPECT_EQ(ct20.model(), "CT-20");
  ChronotickFPGA simulated("SIM9");
  ASSERT_TRUE(simulated.open(false));

  ChronotickFPGA absent("NOPE");
  try {
    absent.open(false);
    ADD_FAILURE() << "opened a board that isn't there";
  } catch (const std::runtime_error &e) {
    EXPECT_STREQ(e.what(), "Opening of USB connection failed or device with serial 'NOPE' not found.");
  }
  passChild();
}
#endif

TEST(VendorLibrary, AMissingLibraryIsNamedInTheOpenFailure) {
  auto missing = vendor::makeVendorLinkProvider("/nonexistent/libokFrontPanel.so");
  EXPECT_FALSE(missing->available());
  EXPECT_TRUE(missing->list().empty());
  EXPECT_EQ(missing->makeLink(), nullptr);
  EXPECT_EQ(missing->unavailableReason(),
            "The board vendor's USB library (/nonexistent/libokFrontPanel.so) was not found.");

  ChronotickFPGA board("2301U1", *missing);
  EXPECT_FALSE(board.open(true));
  try {
    board.open(false);
    ADD_FAILURE() << "opened without a library";
  } catch (const std::runtime_error &e) {
    EXPECT_STREQ(e.what(), "Opening of USB connection failed or device with serial '2301U1' not found. The board "
                           "vendor's USB library (/nonexistent/libokFrontPanel.so) was not found.");
  }

  // A library that loads but isn't the vendor's.
  auto wrong = vendor::makeVendorLinkProvider("libm.so.6");
  EXPECT_FALSE(wrong->available());
  EXPECT_EQ(wrong->unavailableReason(),
            "The board vendor's USB library (libm.so.6) lacks the function okFrontPanel_Construct.");
}

} // namespace
} // namespace chronotick
