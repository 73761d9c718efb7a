#pragma once

#include "VPHPGlobalsKey.h"

#include <QByteArray>
#include <QHash>

// Where the values of superglobals come from. The extension implements it
// over the engine's symbol table; tests implement it over plain tables, so
// that rules can be evaluated without an engine.
class VPHPValueSource
{
public:
    virtual ~VPHPValueSource();
    // The element's text after walking `keys`; empty when the walk ends on nothing.
    virtual QByteArray elementValue(const QByteArray& globalName, const QList<QByteArray>& keys) = 0;
    // The whole superglobal, serialised.
    virtual QByteArray wholeValue(const QByteArray& globalName) = 0;
    virtual bool globalExists(const QByteArray& globalName) = 0;
    // The superglobal exists and the walk along `keys` ends on a value.
    virtual bool elementExists(const QByteArray& globalName, const QList<QByteArray>& keys) = 0;
};

// Answers questions about one superglobal. The five kinds differ only in
// the name they ask about.
class VPHPGlobalsEvaluator
{
public:
    explicit VPHPGlobalsEvaluator(const QByteArray& globalName);
    virtual ~VPHPGlobalsEvaluator();

    virtual QByteArray value(const VPHPGlobalsKey& key);
    virtual bool exists();
    virtual QByteArray value();
    virtual bool exists(const VPHPGlobalsKey& key);

    QByteArray globalName() const { return m_globalName; }

private:
    QByteArray m_globalName;
};

class VPHPGETEvaluator : public VPHPGlobalsEvaluator
{
public:
    VPHPGETEvaluator() : VPHPGlobalsEvaluator("_GET") {}
};

class VPHPPOSTEvaluator : public VPHPGlobalsEvaluator
{
public:
    VPHPPOSTEvaluator() : VPHPGlobalsEvaluator("_POST") {}
};

class VPHPSESSIONEvaluator : public VPHPGlobalsEvaluator
{
public:
    VPHPSESSIONEvaluator() : VPHPGlobalsEvaluator("_SESSION") {}
};

class VPHPCOOKIEEvaluator : public VPHPGlobalsEvaluator
{
public:
    VPHPCOOKIEEvaluator() : VPHPGlobalsEvaluator("_COOKIE") {}
};

class VPHPSERVEREvaluator : public VPHPGlobalsEvaluator
{
public:
    VPHPSERVEREvaluator() : VPHPGlobalsEvaluator("_SERVER") {}
};

// A new evaluator for a type number, or null above 4.
VPHPGlobalsEvaluator* createEvaluator(int type);

// Joins type numbers to their evaluators, for the whole process.
class VPHPEvaluatorsManager
{
public:
    static VPHPEvaluatorsManager* instance();
    static void destroyInstance();
    virtual ~VPHPEvaluatorsManager();

    // Replaces the evaluator of `type`, deleting the one it replaces.
    bool addEvaluator(int type, VPHPGlobalsEvaluator* evaluator);
    // Registers a fresh evaluator for each of the five types, 0 to 4.
    void createEvaluators();

    QByteArray value(int type);
    bool exists(int type);
    QByteArray value(int type, const VPHPGlobalsKey& key);
    bool exists(int type, const VPHPGlobalsKey& key);

    // The source every evaluator reads from; set once by the host.
    static void setValueSource(VPHPValueSource* source);
    static VPHPValueSource* valueSource();

private:
    VPHPEvaluatorsManager() = default;
    VPHPGlobalsEvaluator* evaluator(int type) const { return evaluators.value(type); }

    QHash<int, VPHPGlobalsEvaluator*> evaluators;
};
