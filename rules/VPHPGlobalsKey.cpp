#include "VPHPGlobalsKey.h"

namespace {
const char* const globalNames[] = {"_GET", "_POST", "_SESSION", "_COOKIE", "_SERVER"};
}

QByteArray phpGlobalName(int type)
{
    return type >= 0 && type <= PHP_SERVER ? QByteArray(globalNames[type]) : QByteArray();
}

int phpGlobalType(const QByteArray& name)
{
    for (int type = PHP_GET; type <= PHP_SERVER; ++type) {
        if (name == globalNames[type])
            return type;
    }
    return -1;
}

VPHPGlobalsKey::VPHPGlobalsKey(const QByteArray& subscripts)
{
    int position = 0;
    for (;;) {
        const int open = subscripts.indexOf('[', position);
        if (open < 0)
            break;
        const int close = subscripts.indexOf(']', open);
        // The schema refuses a "[" without a later "]"; end here all the same.
        if (close < 0)
            break;
        keys.append(subscripts.mid(open + 1, close - open - 1));
        position = close + 1;
    }
}

VPHPGlobalsKey::~VPHPGlobalsKey() = default;
