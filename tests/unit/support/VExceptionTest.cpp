#include "VException.h"

#include <gtest/gtest.h>

TEST(VException, WhatIsTheMessageWithoutAPlace)
{
    const VException e(QStringLiteral("Failed to open Rules File: /etc/x.xml"));
    EXPECT_STREQ("Failed to open Rules File: /etc/x.xml", e.what());
}

TEST(VException, PlaceIsPrefixedOnce)
{
    const VException e(QStringLiteral("broken"), "f", 42);
    EXPECT_STREQ("f:42 broken", e.what());
    EXPECT_STREQ("f:42 broken", e.what());
    EXPECT_EQ(QStringLiteral("f:42 broken"), e.message());

    const VException noFile(QStringLiteral("broken"), nullptr, 7);
    EXPECT_STREQ(":7 broken", noFile.what());
}

TEST(VException, CaughtAsStdException)
{
    try {
        throw VException(QStringLiteral("caf\u00e9"));
    } catch (const std::exception& e) {
        EXPECT_STREQ("caf\xe9", e.what());
    }
}
