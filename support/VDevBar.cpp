#include "VDevBar.h"

VDevBar* VDevBar::instance()
{
    static VDevBar bar;
    return &bar;
}
