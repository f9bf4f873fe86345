// How the program ends other than by its menu.
#pragma once

namespace tarnlink {

/// SIGTERM, SIGINT and SIGHUP quit the application as the menu does. Call once, with the
/// application made.
void quitOnSignals();

/// Such a signal has come. An alert that is open ends first, then the application.
bool isAskedToEnd();

/// Qt aborts the process when it finds no display. From here until displayIsThere() that ends it
/// instead, with one log line and exit code 1.
void expectDisplay();
void displayIsThere();

}  // namespace tarnlink
