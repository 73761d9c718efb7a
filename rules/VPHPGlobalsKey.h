#pragma once

#include <QByteArray>
#include <QList>

// Type numbers of the superglobals a rule may look at.
enum VPHPGlobalType {
    PHP_GET = 0,
    PHP_POST = 1,
    PHP_SESSION = 2,
    PHP_COOKIE = 3,
    PHP_SERVER = 4,
};

// The successive subscripts of a name such as "_COOKIE[a][b]".
class VPHPGlobalsKey
{
public:
    VPHPGlobalsKey() = default;
    // Takes the subscripts of "[a][b]"-shaped text: "a" and "b", untrimmed.
    explicit VPHPGlobalsKey(const QByteArray& subscripts);
    virtual ~VPHPGlobalsKey();

    QList<QByteArray> keys;
};

// The name of a type number, empty for an unknown number.
QByteArray phpGlobalName(int type);
// The type number of a superglobal's name, or -1.
int phpGlobalType(const QByteArray& name);
