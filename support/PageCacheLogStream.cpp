#include "PageCacheLogStream.h"

VDebug::StreamId PageCacheLogStream = 0;
