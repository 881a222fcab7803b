#include <chronotick/Logging.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

using namespace chronotick;

namespace {
std::vector<std::pair<int, std::string>> received;
void sink(LogLevel level, std::string message) {
  received.emplace_back(level, message);
}

struct Collector : CustomLogger {
  std::vector<std::string> messages;
  bool throwing = false;
  void Log(int, const std::string &message) override {
    if (throwing)
      throw std::runtime_error("sink broke");
    messages.push_back(message);
  }
};
} // namespace

TEST(Logging, FormatsCutsAndRestoresTheSink) {
  received.clear();
  logger_callback previous = setLogger(&sink);
  _Log(LOGGER_WARNING, "/some/dir/IteratorBase.cpp", 32, "value %d", 7);
  _Log(LOGGER_ERROR, "C:\\build\\Win.cpp", 5, "x");
  std::string big(3000, 'a');
  _Log(LOGGER_INFO, "f.cpp", 1, "%s", big.c_str());
  EXPECT_EQ(setLogger(nullptr), &sink) << "setLogger returns the previous sink";
  EXPECT_NE(setLogger(previous), &sink);
  setLogger(nullptr);

  ASSERT_EQ(received.size(), 3u);
  EXPECT_EQ(received[0].first, LOGGER_WARNING);
  EXPECT_EQ(received[0].second, "IteratorBase.cpp:32: value 7");
  EXPECT_EQ(received[1].second, "Win.cpp:5: x");
  EXPECT_EQ(received[2].second.size(), 1023u) << "a message is cut to the 1024-byte buffer";
  EXPECT_EQ(received[2].second.rfind("f.cpp:1: aaa", 0), 0u);
}

TEST(Logging, CustomLoggersEnableDisableAndThrow) {
  Collector first;
  Collector second;
  first.enable();
  second.enable();
  _Log(LOGGER_INFO, "a.cpp", 1, "one");
  EXPECT_TRUE(first.messages.empty());
  EXPECT_EQ(second.messages, std::vector<std::string>{"a.cpp:1: one"});

  second.throwing = true;
  ::testing::internal::CaptureStderr();
  _Log(LOGGER_ERROR, "a.cpp", 2, "two"); // must return normally
  std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("There was an exception within the CustomLogger handler: sink broke"), std::string::npos);
  EXPECT_NE(err.find("a.cpp:2: two"), std::string::npos);

  {
    Collector third;
    third.enable();
  } // destroying any logger disables logging through objects
  ::testing::internal::CaptureStderr();
  _Log(LOGGER_INFO, "a.cpp", 3, "three");
  err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(err, "a.cpp:3: three\n");
  EXPECT_EQ(second.messages.size(), 1u);
}
