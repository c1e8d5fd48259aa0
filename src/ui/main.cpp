// Hands over to the interface library, so the tests run what the program runs.
#include <QApplication>

#include "ui/main_window.h"

int main(int argc, char** argv) {
  QApplication application(argc, argv);
  corvane::ui::MainWindow window(corvane::ui::MainWindow::Configuration::forThisSystem());
  window.show();
  return application.exec();
}
