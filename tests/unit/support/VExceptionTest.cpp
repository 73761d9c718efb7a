#include "VException.h"

#include <gtest/gtest.h>

// The message goes into the log and to the engine as it is, with its place
// in front once, and reaches code that catches std::exception in Latin-1.
TEST(VException, WhatIsTheMessageBehindItsPlace)
{
    EXPECT_STREQ("Failed to open Rules File: /etc/x.xml",
                 VException(QStringLiteral("Failed to open Rules File: /etc/x.xml")).what());
    const VException e(QStringLiteral("broken"), "f", 42);
    EXPECT_STREQ("f:42 broken", e.what());
    EXPECT_STREQ("f:42 broken", e.what());
    EXPECT_EQ(QStringLiteral("f:42 broken"), e.message());
    EXPECT_STREQ(":7 broken", VException(QStringLiteral("broken"), nullptr, 7).what());
    try {
        throw VException(QStringLiteral("caf\u00e9"));
    } catch (const std::exception& caught) {
        EXPECT_STREQ("caf\xe9", caught.what());
    }
}
