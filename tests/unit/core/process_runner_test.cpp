#include "process/process_runner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <future>
#include <string>
#include <thread>
#include <vector>

#include "temp_home.h"

namespace qev::core {
namespace {

const std::string kShell = "/bin/sh";

process::ProcessOutput shell(const std::string& script) {
  return process::runProcessOutput(kShell, {"-c", script});
}

TEST(ProcessRunnerTest, MissingProgramFailsWithLaunchErrorText) {
  EXPECT_FALSE(process::runProcess("/nonexistent/tool", {}));
  const auto result = process::runProcessOutput("/nonexistent/tool", {"x"});
  EXPECT_FALSE(result.ok);
  EXPECT_EQ(result.output, "No such file or directory: /nonexistent/tool");
}

TEST(ProcessRunnerTest, ExitStatusDecidesTheResult) {
  EXPECT_TRUE(process::runProcess(kShell, {"-c", "exit 0"}));
  EXPECT_FALSE(process::runProcess(kShell, {"-c", "exit 1"}));
  EXPECT_FALSE(process::runProcess(kShell, {"-c", "kill -9 $$"}));
  EXPECT_TRUE(shell("exit 0").ok);
  EXPECT_FALSE(shell("echo partial; exit 1").ok);
  EXPECT_EQ(shell("echo partial; exit 1").output, "partial\n");
  EXPECT_FALSE(shell("kill -TERM $$").ok);
}

TEST(ProcessRunnerTest, ArgumentsArePassedVerbatimWithoutAShell) {
  const std::vector<std::string> args{
      "-c", "printf '%s|' \"$@\"", "name", "two words", "$HOME", "*", "'quoted'", ""};
  const auto result = process::runProcessOutput(kShell, args);
  ASSERT_TRUE(result.ok);
  EXPECT_EQ(result.output, "two words|$HOME|*|'quoted'||");
}

TEST(ProcessRunnerTest, ChattyChildOnBothPipesDoesNotDeadlock) {
  // 1 MiB on each pipe is far beyond the kernel's pipe buffer.
  const auto result =
      shell("head -c 1048576 /dev/zero | tr '\\0' o; head -c 1048576 /dev/zero | tr '\\0' e >&2");
  ASSERT_TRUE(result.ok);
  ASSERT_EQ(result.output.size(), 2u * 1048576u);
  EXPECT_EQ(result.output.find_first_not_of('o'), 1048576u);
  EXPECT_EQ(result.output.find_first_not_of('e', 1048576u), std::string::npos);
  // process::runProcess throws the output away and must not block either.
  EXPECT_TRUE(process::runProcess(
      kShell, {"-c", "head -c 1048576 /dev/zero; head -c 1048576 /dev/zero >&2"}));
}

TEST(ProcessRunnerTest, ChildGetsTheEnvironmentAndNoStrayDescriptors) {
  ::setenv("QEV_PROCESS_RUNNER_PROBE", "inherited value", 1);
  EXPECT_EQ(shell("printf %s \"$QEV_PROCESS_RUNNER_PROBE\"").output, "inherited value");

  // A descriptor opened without close-on-exec elsewhere in the program stays out of the child.
  // Well above the descriptor ls opens for its own listing.
  const int opened = ::open("/dev/null", O_RDONLY);
  const int leaky = ::fcntl(opened, F_DUPFD, 64);
  ::close(opened);
  ASSERT_GE(leaky, 64);
  const auto listing = process::runProcessOutput("/bin/ls", {"/proc/self/fd"});
  ::close(leaky);
  ASSERT_TRUE(listing.ok);
  // ls itself opens one descriptor for the listing (3); nothing else beyond 0-2.
  std::vector<std::string> fds;
  std::string line;
  for (char c : listing.output) {
    if (c == '\n') {
      fds.push_back(line);
      line.clear();
    } else {
      line += c;
    }
  }
  EXPECT_LE(fds.size(), 4u) << listing.output;
  for (const auto& fd : fds) EXPECT_NE(fd, std::to_string(leaky)) << listing.output;

  // Standard input is not the parent's: reading it ends at once.
  EXPECT_EQ(shell("cat; echo done").output, "done\n");
}

TEST(ProcessRunnerTest, GrandchildHoldingThePipeDoesNotHoldTheCaller) {
  // The background sleep keeps the write ends open long after the shell exits.
  const auto result = shell("sleep 20 & echo started");
  EXPECT_TRUE(result.ok);
  EXPECT_EQ(result.output, "started\n");
}

TEST(ProcessRunnerTest, ConcurrentRunsKeepTheirOwnOutput) {
  std::vector<std::future<process::ProcessOutput>> runs;
  for (int i = 0; i < 16; ++i) {
    runs.push_back(std::async(std::launch::async, [i] {
      return shell("printf out" + std::to_string(i) + "; printf err" + std::to_string(i) + " >&2");
    }));
  }
  for (int i = 0; i < 16; ++i) {
    const auto result = runs[static_cast<std::size_t>(i)].get();
    EXPECT_TRUE(result.ok);
    EXPECT_EQ(result.output, "out" + std::to_string(i) + "err" + std::to_string(i));
  }
}

}  // namespace
}  // namespace qev::core
