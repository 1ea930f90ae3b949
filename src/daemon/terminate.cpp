// The terminate handler of a daemon linked with the C++ run-time built in:
// abort, as the run-time does when built without its verbose handler. Defining
// the run-time's handler variable here keeps its default (which demangles the
// type of an uncaught exception for a message nobody would see) out of the
// image. Linked only with DORVAND_STATIC_RUNTIME.
#include <cstdlib>
#include <exception>

namespace __cxxabiv1 {
std::terminate_handler __terminate_handler = std::abort;
}
