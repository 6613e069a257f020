// The two ways the base helpers report a failed system call: into an optional
// error code, or as a thrown boost::system::system_error. Both carry errno in
// the system category.
#pragma once

#include <boost/system/error_code.hpp>

namespace Arbolite3 {
namespace Base {

// Clears `*error` if it is given.
void clearError(boost::system::error_code* error);
// Stores the current errno into `*error` if it is given.
void storeErrno(boost::system::error_code* error);
// Throws boost::system::system_error from the current errno.
[[noreturn]] void throwErrno();

}  // namespace Base
}  // namespace Arbolite3
