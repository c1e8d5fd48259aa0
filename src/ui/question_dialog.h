// Questions and notices as window-modal message boxes that never block the event loop: the
// answer arrives through a callback, so the managers' work keeps being published while a
// question is open. The boxes are named so that tests can find and answer them.
#pragma once

#include <QString>
#include <QStringList>
#include <functional>

class QWidget;

namespace corvane::ui {

inline constexpr const char* kQuestionObjectName = "corvane-question";
inline constexpr const char* kQuestionOptionObjectName = "question-option";

struct Question {
  QString title;
  QString message;
  QStringList buttons;  // in the order shown; the last one also answers Escape
  QString details = {};
};

// `answered` gets the index of the button, or the last index when the box is closed otherwise.
void ask(QWidget* parent, const Question& question, std::function<void(int)> answered);
// The same with a check box under the message (unticked at first); `answered` also gets whether
// it was ticked when the box went away.
void askWithOption(QWidget* parent, const Question& question, const QString& option,
                   std::function<void(int, bool)> answered);
// A notice with one button.
void tell(QWidget* parent, const QString& title, const QString& message);

}  // namespace corvane::ui
