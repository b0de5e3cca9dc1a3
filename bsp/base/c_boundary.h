// The frame of a C function over C++: no exception gets out. Internal.
#ifndef BSP_BASE_C_BOUNDARY_H_
#define BSP_BASE_C_BOUNDARY_H_

namespace bsp {

// To be called in the only `catch (...)` of a C function:
//
//   int f(void) try {
//     ...
//   } catch (...) {
//     return bsp::FailForC(__func__, -1);
//   }
//
// Logs at level 3, under the name of the C function, what was thrown, and returns `result`.
// Anything may come: slots, handlers and log hooks are a module's own. Only the unwinding of a
// cancelled thread passes on, which must not be stopped.
int FailForC(const char* function, int result);

}  // namespace bsp

#endif  // BSP_BASE_C_BOUNDARY_H_
