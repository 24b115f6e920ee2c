#pragma once
namespace vlmProd {

/// What submission control does after the backend's last delivery result.
enum class orxStatus : int {
    SendNext = 0,  ///< delivered: send the next report
    SendLast = 1,  ///< send the last report again
    Stop = 2,      ///< send nothing
};

}  // namespace vlmProd
