// Questions and flags of a single open descriptor.
#pragma once

namespace Arbolite3 {
namespace Base {

// True when fstat succeeds and `fd` is a socket; a closed descriptor is false.
bool isSocket(int fd);
// Sets (`on`) or clears O_NONBLOCK. Throws boost::system::system_error.
void setNonBlocking(int fd, bool on);
// `on` lets children inherit `fd` (clears FD_CLOEXEC); off sets FD_CLOEXEC.
// Throws boost::system::system_error.
void setInheritable(int fd, bool on);

}  // namespace Base
}  // namespace Arbolite3
