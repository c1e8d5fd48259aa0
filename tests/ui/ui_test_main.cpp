// The desktop application's tests run inside one QApplication on the offscreen platform, so
// they need no display; each test builds its own window. With "--screenshots DIR" the binary
// renders every screen instead (scripts/screenshots runs it under a virtual display).
#include <gtest/gtest.h>

#include <QApplication>
#include <cstring>

#include "engine/headless_modes.h"
#include "screenshots.h"

int main(int argc, char** argv) {
  // The window's socket probe starts this executable, as the program's starts the program.
  if (auto status = corvane::runHeadlessMode(argc, argv)) return *status;
  const bool screenshots = argc == 3 && std::strcmp(argv[1], "--screenshots") == 0;
  if (!screenshots && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication application(argc, argv);
  if (screenshots) return corvane::ui::renderScreenshots(argv[2]);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
