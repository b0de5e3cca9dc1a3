// Log front end for C++: the entry points, macros and client pointer of bsp/bsp.h, and our tags.
#ifndef BSP_LOG_LOG_H_
#define BSP_LOG_LOG_H_

#include "bsp/base/macros.h"
#include "bsp/bsp.h"

namespace bsp {

// Whether _log_debug prints what is logged with this tag and level: asked before making a text that
// is dear. Any thread.
BSP_EXPORT bool IsLogged(const char* module, int level);

}  // namespace bsp

// Log tags of the library's own calls.
#define MOD_BSP "MOD_BSP"    // nearly everything
#define MOD_EB "MOD_EB"      // pooled buffers
#define MOD_DOM "MOD_DOM"    // event cache
#define MOD_WEB "MOD_WEB"    // C binding of the bus
#define MOD_CORE "MOD_CORE"  // C binding of the bus

#endif  // BSP_LOG_LOG_H_
