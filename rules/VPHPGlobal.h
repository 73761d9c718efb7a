#pragma once

#include "VPHPGlobalsKey.h"

// A whole superglobal, read afresh at every question.
class VPHPGlobal
{
public:
    explicit VPHPGlobal(int type);
    virtual ~VPHPGlobal();

    // The serialised whole value.
    virtual QByteArray value() const;
    virtual bool exists() const;
    // The superglobal's name, without subscripts.
    virtual QByteArray name() const;

    int type() const { return m_type; }

private:
    int m_type;
    QByteArray m_name;
};

// One element of a superglobal, reached through its subscripts.
class VPHPGlobalElement : public VPHPGlobal
{
public:
    VPHPGlobalElement(int type, const VPHPGlobalsKey& key);
    QByteArray value() const override;
    bool exists() const override;

    const VPHPGlobalsKey& key() const { return m_key; }

private:
    VPHPGlobalsKey m_key;
};

// A VPHPGlobal for empty subscripts, else a VPHPGlobalElement. The caller owns it.
VPHPGlobal* makeGlobal(int type, const QByteArray& subscripts);
// Parses "_SERVER[HTTP_HOST]" and the like. Throws VException with
// "Unknown Global variable: %1" for a base name that isn't one of the five.
VPHPGlobal* parseGlobal(const QString& text);
