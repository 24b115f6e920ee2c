#pragma once
namespace vlmProd {

/// What the backend's last delivery result asks of submission control.
enum class orxStatus : int {
    SendNext = 0,  ///< delivered: go on with the next report
    SendLast = 1,  ///< send the last report again
    Stop = 2,      ///< send nothing
};

}  // namespace vlmProd
