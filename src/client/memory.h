// SPDX-License-Identifier: MIT
// Whether memory of this process can be read or written, without touching it by an instruction.
//
// A command takes addresses from its caller. A bad one must be EFAULT, as it is with ioctl(2), and
// not the end of the program.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zorv {

enum class reach { readable, writable };

// Whether every byte of [addr, addr + bytes) can be reached. writable: one byte of each page is
// written back with the value it has, so the range must not be in use by others meanwhile.
// Where the host forbids the look (process_vm_readv refused), the address is trusted.
[[nodiscard]] bool memory_reaches(std::uint64_t addr, std::size_t bytes, reach how);

}  // namespace zorv
