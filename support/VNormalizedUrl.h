#pragma once

#include <QString>

// A URL as purge rules compare it: the default port of the scheme goes;
// everything else stays as it is.
QString normalizeUrl(const QString& url);
