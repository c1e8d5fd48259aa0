// The terminal prompter with real streams: numbered answers, bad input, end of input, and the
// answers given ahead of time when there is no terminal.
#include "app/terminal_prompter.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "engine/preflight/migration_preflight.h"
#include "settings/localization.h"

namespace corvane {
namespace {

using Choice = MigrationPreflightChoice;
using Terminal = TerminalPrompter::Terminal;

// A prompter reading `text` and writing into a buffer the test can read.
class PromptSession {
 public:
  PromptSession(std::string text, PresetAnswer preset, Terminal terminal)
      : input_(std::move(text)),
        in_(fmemopen(input_.data(), input_.size() + input_.empty(), "r")),
        out_(open_memstream(&buffer_, &size_)),
        prompter_(std::make_unique<TerminalPrompter>(preset, terminal, in_, out_)) {}
  ~PromptSession() {
    prompter_.reset();
    std::fclose(in_);
    std::fclose(out_);
    free(buffer_);
  }
  TerminalPrompter& prompter() { return *prompter_; }
  std::string output() {
    std::fflush(out_);
    return std::string(buffer_, size_);
  }

 private:
  std::string input_;
  char* buffer_ = nullptr;
  std::size_t size_ = 0;
  std::FILE* in_;
  std::FILE* out_;
  std::unique_ptr<TerminalPrompter> prompter_;
};

const std::vector<MigrationRuntimeBlocker> kBlockers = {
    {"migration.preflight.socket", "run/app.sock", {"server"}, std::nullopt}};
const std::vector<MigrationRuntimeBlocker> kWithGitMonitor = {
    {"migration.preflight.git_service", "repo/.git/fsmonitor--daemon.ipc", {}, "/work/repo/.git"},
    {"migration.preflight.socket", "run/app.sock", {"server"}, std::nullopt}};

TEST(TerminalPrompterTest, AsksOnTheTerminalUntilItGetsANumber) {
  PromptSession session("2\n", PresetAnswer::none, Terminal::present);
  EXPECT_EQ(session.prompter().choose(kWithGitMonitor), Choice::retry);
  const std::string output = session.output();
  EXPECT_NE(output.find(localizedFormat("migration.preflight.used_by", "run/app.sock", "server")), std::string::npos);
  EXPECT_NE(output.find(localizedFormat("cli.prompt.button", 3, localized("migration.preflight.later"))),
            std::string::npos);
  // Without a git monitor there is nothing for Corvane to stop: try again is the first answer.
  PromptSession socketOnly("1\n", PresetAnswer::none, Terminal::present);
  EXPECT_EQ(socketOnly.prompter().choose(kBlockers), Choice::retry);
  const std::string offered = socketOnly.output();
  EXPECT_EQ(offered.find(localized("migration.preflight.stop")), std::string::npos) << offered;
  EXPECT_NE(offered.find(localizedFormat("cli.prompt.button", 2, localized("migration.preflight.later"))),
            std::string::npos);

  PromptSession patient("stop\n0\n 1 \n", PresetAnswer::none, Terminal::present);
  EXPECT_EQ(patient.prompter().choose(kWithGitMonitor), Choice::stop);
  const std::string complaints = patient.output();
  const std::string invalid = localizedFormat("cli.prompt.invalid", 3);
  EXPECT_NE(complaints.find(invalid), std::string::npos);
  EXPECT_NE(complaints.find(invalid, complaints.find(invalid) + 1), std::string::npos)
      << "both bad answers are refused";

  PromptSession closed("", PresetAnswer::none, Terminal::present);
  EXPECT_EQ(closed.prompter().choose(kBlockers), Choice::later) << "end of input leaves the item for later";
  EXPECT_FALSE(closed.prompter().authorize("/Applications/App.app"));

  PromptSession yes("1\n", PresetAnswer::none, Terminal::present);
  EXPECT_TRUE(yes.prompter().authorize("/Applications/App.app"));
  EXPECT_NE(yes.output().find(localizedWithDetail("migration.preflight.admin_message", "/Applications/App.app")),
            std::string::npos);
}

TEST(TerminalPrompterTest, WithoutATerminalAndWithoutAPresetEverythingWaits) {
  PromptSession session("1\n", PresetAnswer::none, Terminal::absent);
  EXPECT_EQ(session.prompter().choose(kBlockers), Choice::later) << "input that is not a terminal is not read";
  EXPECT_FALSE(session.prompter().authorize("/Applications/App.app"));
  const std::string output = session.output();
  const std::string notice = localized("cli.prompt.no_terminal");
  EXPECT_NE(output.find(notice), std::string::npos);
  EXPECT_EQ(output.find(notice, output.find(notice) + 1), std::string::npos) << "the reason is given once";
}

TEST(TerminalPrompterTest, PresetAnswersStopOrRetryOnceThenDeferAndAuthorize) {
  PromptSession yes("", PresetAnswer::yes, Terminal::absent);
  EXPECT_EQ(yes.prompter().choose(kWithGitMonitor), Choice::stop);
  EXPECT_EQ(yes.prompter().choose(kWithGitMonitor), Choice::later) << "stopping did not help: no endless loop";
  EXPECT_TRUE(yes.prompter().authorize("/Applications/App.app"));
  EXPECT_NE(yes.output().find(localized("cli.prompt.still_blocked")), std::string::npos);
  PromptSession again("", PresetAnswer::yes, Terminal::absent);
  EXPECT_EQ(again.prompter().choose(kBlockers), Choice::retry) << "no git monitor: nothing to stop";
  EXPECT_EQ(again.prompter().choose(kBlockers), Choice::later);
  EXPECT_EQ(again.output().find(localized("migration.preflight.stop")), std::string::npos);

  PromptSession defer("", PresetAnswer::defer, Terminal::present);
  EXPECT_EQ(defer.prompter().choose(kBlockers), Choice::later) << "an explicit preset wins over the terminal";
  EXPECT_FALSE(defer.prompter().authorize("/Applications/App.app"));
}

}  // namespace
}  // namespace corvane
