#include "ui/question_dialog.h"

#include <QAbstractButton>
#include <QCheckBox>
#include <QMessageBox>
#include <QPushButton>
#include <memory>

#include "ui/ui_text.h"

namespace corvane::ui {

namespace {

void openQuestion(QWidget* parent, const Question& question, const QString& option,
                  std::function<void(int, bool)> answered) {
  auto* box = new QMessageBox(parent);
  box->setObjectName(kQuestionObjectName);
  box->setAttribute(Qt::WA_DeleteOnClose);
  box->setWindowModality(Qt::WindowModal);
  box->setIcon(QMessageBox::Question);
  box->setWindowTitle(question.title);
  box->setText(question.title);
  box->setInformativeText(question.message);
  if (!question.details.isEmpty()) box->setDetailedText(question.details);
  QCheckBox* checkBox = nullptr;
  if (!option.isEmpty()) {
    checkBox = new QCheckBox(option, box);
    checkBox->setObjectName(kQuestionOptionObjectName);
    box->setCheckBox(checkBox);
  }
  QList<QAbstractButton*> buttons;
  for (int i = 0; i < question.buttons.size(); ++i) {
    const bool last = i + 1 == question.buttons.size();
    auto* button =
        box->addButton(question.buttons[i], last && i > 0 ? QMessageBox::RejectRole : QMessageBox::AcceptRole);
    button->setObjectName(QString("answer-%1").arg(i));
    buttons.append(button);
  }
  if (!buttons.isEmpty()) {
    box->setDefaultButton(qobject_cast<QPushButton*>(buttons.front()));
    box->setEscapeButton(buttons.back());
  }
  // Exactly one answer, whichever way the box goes away.
  auto once = std::make_shared<std::function<void(int, bool)>>(std::move(answered));
  const int fallback = static_cast<int>(buttons.size()) - 1;
  QObject::connect(box, &QMessageBox::buttonClicked, box, [once, buttons, checkBox](QAbstractButton* clicked) {
    if (auto callback = std::exchange(*once, nullptr))
      callback(static_cast<int>(buttons.indexOf(clicked)), checkBox && checkBox->isChecked());
  });
  // Closed any other way: the cautious answer, and the option counts as not chosen.
  QObject::connect(box, &QObject::destroyed, [once, fallback] {
    if (auto callback = std::exchange(*once, nullptr)) callback(fallback, false);
  });
  box->open();
}

}  // namespace

void ask(QWidget* parent, const Question& question, std::function<void(int)> answered) {
  openQuestion(parent, question, {}, [answered = std::move(answered)](int answer, bool) { answered(answer); });
}

void askWithOption(QWidget* parent, const Question& question, const QString& option,
                   std::function<void(int, bool)> answered) {
  openQuestion(parent, question, option, std::move(answered));
}

void tell(QWidget* parent, const QString& title, const QString& message) {
  ask(parent, {title, message, {text("ui.ok")}}, [](int) {});
}

}  // namespace corvane::ui
