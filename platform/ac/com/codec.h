#pragma once
/// Event payloads: a dynamic array (32-bit length) of structures (32-bit length each) whose members are
/// tag-length-value coded, big endian. Generated code supplies two functions per structure, found by
/// argument-dependent lookup:
///     bool readMember(ac::com::MemberReader& in, DT_x& out);         // false: the id is not known
///     void writeMembers(ac::com::MemberWriter& out, const DT_x& in);
#include <bit>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <type_traits>
#include <vector>
