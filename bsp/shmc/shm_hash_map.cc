#include "bsp/shmc/shm_hash_map.h"

namespace shmc {

template class ShmLinkTable<impl::SVIPCShmAlloc<false>>;
template class ShmHashTable<unsigned long, UlongShmHashMap::HTNode, impl::SVIPCShmAlloc<false>>;
template class ShmHashMap<unsigned long, impl::SVIPCShmAlloc<false>>;

}  // namespace shmc
