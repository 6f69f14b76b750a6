#include "describe/program.h"

#include "describe_support.h"

namespace dirwell::test {
namespace {

using ::testing::ElementsAre;

TEST(CaptureProgram, ReturnsTheWantedStreamAlone) {
  const ScopedTool tool("/usr/bin/sample-tool", "to output\n", "to error\n");
  EXPECT_EQ(captureProgram({"/usr/bin/sample-tool"}, CapturedStream::output), "to output\n");
  EXPECT_EQ(captureProgram({"/usr/bin/sample-tool"}, CapturedStream::error), "to error\n");
}

TEST(CaptureProgram, HandsTheArgumentsOverAsTheyAre) {
  const ScopedTool tool("/usr/bin/sample-tool", "", "");
  captureProgram({"/usr/bin/sample-tool", "", "a b", "$HOME;'\"`ls`", "\xFF\xC3\xA9"}, CapturedStream::output);
  EXPECT_THAT(tool.runs(), ElementsAre(ElementsAre("", "a b", "$HOME;'\"`ls`", "\xFF\xC3\xA9")));
}

TEST(CaptureProgram, EndsTheTextAtTheFirstNul) {
  const ScopedTool tool("/usr/bin/sample-tool", std::string_view("abc\0def", 7), "");
  EXPECT_EQ(captureProgram({"/usr/bin/sample-tool"}, CapturedStream::output), "abc");
}

TEST(CaptureProgram, GivesNothingForAProgramThatCannotBeStarted) {
  EXPECT_EQ(captureProgram({"/usr/bin/no-such-tool-anywhere"}, CapturedStream::error), "");
}

}  // namespace
}  // namespace dirwell::test
