#pragma once

namespace vlmProd {

/// True while the application runs normally: from the start of main's work until the state manager prepares
/// the shutdown. Any thread.
bool isApplicationRunning();
void setApplicationRunning(bool running);

}  // namespace vlmProd
