#include "shell/scripted_ui.h"

#include <ctime>
#include <sstream>

#include "base/modCompare.h"
#include "base/text_compare.h"
#include "monitor/engine.h"
#include "rules/line_reader.h"
#include "rules/text_numbers.h"

namespace tessmark {

std::optional<std::vector<AnswerRule>> ParseAnswerScript(const std::string& text, int& badLine) {
  std::vector<AnswerRule> rules;
  int number = 0;
  for (std::string line : SplitAt(text, '\n')) {
    ++number;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::istringstream words(line);
    AnswerRule rule;
    std::string answer;
    if (!(words >> rule.pattern) || rule.pattern[0] == '#') continue;
    if (!(words >> answer)) {
      badLine = number;
      return std::nullopt;
    }
    if (answer == "yes") {
      rule.answer = AnswerRule::Answer::Yes;
    } else if (answer == "no") {
      rule.answer = AnswerRule::Answer::No;
    } else if (answer == "none") {
      rule.answer = AnswerRule::Answer::None;
    } else {
      badLine = number;
      return std::nullopt;
    }
    for (std::string word; words >> word;) {
      if (word == "remember") {
        rule.remember = true;
      } else if (word == "after" && words >> word && LongFromText(word).value_or(-1) >= 0) {
        rule.afterMs = static_cast<uint32_t>(*LongFromText(word));
      } else {
        badLine = number;
        return std::nullopt;
      }
    }
    rules.push_back(rule);
  }
  return rules;
}

void ScriptedUi::line(const std::string& text) {
  char stamp[16];
  std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  std::strftime(stamp, sizeof stamp, "%H:%M:%S", &local);
  std::fprintf(out_, "%s  %s\n", stamp, text.c_str());
  std::fflush(out_);
}

void ScriptedUi::setIlabel(const std::string& text) {
  incoming_ = text;
}

// Prints the pair of numbers whenever it differs from the last pair printed.
void ScriptedUi::setBLabel(const std::string& text) {
  if (incoming_ == shownIncoming_ && text == shownBlocked_) return;
  shownIncoming_ = incoming_;
  shownBlocked_ = text;
  line("connections: " + incoming_ + "  blocked: " + text);
}

void ScriptedUi::showErrorBox(const std::string& text) {
  std::string flat = text;
  for (char& c : flat)
    if (c == '\r') c = ' ';
  line("error: " + flat);
}

// Nobody can click OK here: the text is printed and the program goes on.
void ScriptedUi::showMessageBox(const std::string& text, MessageIcon) {
  line(text);
}

void ScriptedUi::setStatusText(int16_t, const std::string& text) {
  line("status: " + text);
}

void ScriptedUi::showAlert(int16_t slot, const AlertView& view) {
  line(view.Label1 + ": " + view.lblDESC);
  std::string path = view.path;
  for (AnswerRule& rule : script_) {
    if (CompareString(path, rule.pattern) == 0) continue;
    if (rule.answer == AnswerRule::Answer::None) break;
    std::lock_guard<std::mutex> lock(mutex_);
    pending_.push_back({slot, view.path, rule, rule.afterMs, std::nullopt});
    return;
  }
  line("  (left open: the program stays frozen until the firewall ends)");
}

size_t ScriptedUi::pendingAnswers() {
  std::lock_guard<std::mutex> lock(mutex_);
  return pending_.size();
}

void ScriptedUi::postDueAnswers(Engine& engine, uint32_t nowMs) {
  std::vector<Pending> due;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = pending_.begin(); it != pending_.end();) {
      if (!it->dueAt) it->dueAt = nowMs + it->dueInMs;
      if (static_cast<int32_t>(nowMs - *it->dueAt) >= 0) {
        due.push_back(*it);
        it = pending_.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (const Pending& answer : due) {
    bool yes = answer.rule.answer == AnswerRule::Answer::Yes;
    line(std::string("  answered ") + (yes ? "Yes" : "No") +
         (answer.rule.remember ? ", remembered" : ""));
    engine.post([&engine, answer, yes] {
      frmAlert& alert = engine.monitor.AlertForm(answer.slot);
      // The question may have been answered, and its slot taken by another, meanwhile.
      if (!EqualIgnoringCase(alert.GetAlertPath(), answer.path)) return;
      alert.chkRemember = answer.rule.remember ? 1 : 0;
      if (yes) {
        alert.Command1_Click();
      } else {
        alert.command2_Click();
      }
    });
  }
}

void ScriptedUi::showClosedPortNotice(const ClosedPortView& view) {
  line(view.Label2 + " " + view.Label3 + " (" + view.Label5 + ", remote " + view.Label7 + ")");
}

void ScriptedUi::showVirusNotice(const VirusView& view) {
  std::string info = view.txtInfo;
  for (char& c : info)
    if (c == '\r' || c == '\n') c = ' ';
  line(view.caption + " " + info);
}

void ScriptedUi::showRulesCreated(const RulesCreatedView& view) {
  line(view.Label1 + ": " + view.Label2);
}

void ScriptedUi::setBlockedDetails(const std::string& text) {
  std::string flat = text;
  for (char& c : flat)
    if (c == '\r' || c == '\n') c = ' ';
  line("log: " + flat);
}

}  // namespace tessmark
