#pragma once
/// The own address: SOME/IP's service discovery needs one for each process.
#include <string>
#include <vector>

#include "machine/Manifest.h"

namespace vlmWatch {

/// The addresses that may be used, in the order in which to try them: on loopback 127.0.0.100 to
/// 127.0.0.199, elsewhere those of this machine's interfaces inside the network. The given settings' own
/// address is vlmmaster's and never among them.
std::vector<std::string> candidates(const machine::SomeIpSettings& settings);

/// Starts the process's runtime, as a client, at the first candidate that no other process uses. Throws
/// std::runtime_error with the reason when there is none.
void startAtFreeAddress(machine::SomeIpSettings settings);
/// Starts it at the address of the settings. Throws std::runtime_error with the reason, such as another
/// process that uses it.
void startAt(const machine::SomeIpSettings& settings);

}  // namespace vlmWatch
