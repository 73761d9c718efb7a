#pragma once
// What the engine gives a call of one of the extension's PHP functions.
#include "php.h"

struct VeskCall
{
    zend_execute_data* execute_data;
};
