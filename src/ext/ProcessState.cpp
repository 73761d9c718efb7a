#include "ModuleState.h"
#include "PageCacheConfig.h"
#include "RequestState.h"

// The records themselves stand apart from the code that fills them, so
// that a piece of the extension can be linked without the rest.
ModuleState moduleState;
PageCacheConfig pageCacheConfig;
RequestState requestState;
