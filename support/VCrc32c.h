#pragma once

#include <QtGlobal>

#include <cstddef>

// CRC-32C (Castagnoli), as the page store checks its records with: the
// processor's own instruction where it has one, a table where it hasn't.
// Pass the previous result as `crc` to continue over more bytes.
quint32 crc32c(const void* data, size_t size, quint32 crc = 0);
