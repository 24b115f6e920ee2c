#pragma once

namespace vlmProd {

/// Whether the application is in its normal running state: true once main has begun its work, false while
/// the state manager prepares the shutdown. Any thread.
bool isApplicationRunning();
void setApplicationRunning(bool running);

}  // namespace vlmProd
