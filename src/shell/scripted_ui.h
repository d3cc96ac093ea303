#pragma once
// The firewall without windows: a UI port that prints what a user would see, and answers the
// access alerts from a script instead of a person.
//
// A script holds one rule a line, the first matching rule answers:
//   PATTERN yes|no|none [remember] [after MS]
// PATTERN is matched against the program's path with the wildcard compare of the rule
// search (* ? # [..], ignoring case). "none" leaves the question open, the program frozen
// until the firewall ends. "after MS" answers that many milliseconds later (default 0).
// Empty lines and lines starting with "#" are passed over.

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/ui_port.h"

namespace tessmark {

class Engine;

struct AnswerRule {
  std::string pattern;
  enum class Answer { Yes, No, None } answer = Answer::Yes;
  bool remember = false;
  uint32_t afterMs = 0;
};

// The rules of a script text; nullopt and the line number of the first line it cannot read.
std::optional<std::vector<AnswerRule>> ParseAnswerScript(const std::string& text, int& badLine);

class ScriptedUi final : public SilentUi {
 public:
  ScriptedUi(std::vector<AnswerRule> script, std::FILE* out)
      : script_(std::move(script)), out_(out) {}

  // Answers that have come due are posted into the engine. Called by the host's loop, on the
  // host's thread, with the host's clock.
  void postDueAnswers(Engine& engine, uint32_t nowMs);
  // Answers waiting to be posted.
  size_t pendingAnswers();

  void setIlabel(const std::string& text) override;
  void setBLabel(const std::string& text) override;
  void showErrorBox(const std::string& text) override;
  void showMessageBox(const std::string& text, MessageIcon icon) override;
  void setStatusText(int16_t panel, const std::string& text) override;
  void showAlert(int16_t slot, const AlertView& view) override;
  void showClosedPortNotice(const ClosedPortView& view) override;
  void showVirusNotice(const VirusView& view) override;
  void showRulesCreated(const RulesCreatedView& view) override;
  void setBlockedDetails(const std::string& text) override;

 private:
  struct Pending {
    int16_t slot;
    std::string path;
    AnswerRule rule;
    uint32_t dueInMs;
    std::optional<uint32_t> dueAt;  // set by the host's clock at its first look
  };
  void line(const std::string& text);

  std::vector<AnswerRule> script_;
  std::FILE* out_;
  std::mutex mutex_;  // pending_ is filled on the engine thread and read on the host's
  std::vector<Pending> pending_;
  std::string incoming_, shownIncoming_, shownBlocked_;
};

}  // namespace tessmark
