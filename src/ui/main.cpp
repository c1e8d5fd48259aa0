// Hands over to the interface library, so the tests run what the program runs.
#include <QApplication>

#include "engine/headless_modes.h"
#include "ui/main_window.h"

int main(int argc, char** argv) {
  // The engine starts this very executable as its socket probe and, as root, as its privileged
  // helper: those runs must answer and end, never open a window.
  if (auto status = corvane::runHeadlessMode(argc, argv)) return *status;
  QApplication application(argc, argv);
  corvane::ui::MainWindow window(corvane::ui::MainWindow::Configuration::forThisSystem());
  window.show();
  return application.exec();
}
