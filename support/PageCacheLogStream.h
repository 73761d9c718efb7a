#pragma once

#include "VDebug.h"

// The page cache's one log stream, "Page-Cache". Start-up registers it; until
// then it is stream 0, whose lines go to standard error.
extern VDebug::StreamId PageCacheLogStream;
