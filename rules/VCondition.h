#pragma once

#include "VPHPGlobal.h"

#include <QHash>
#include <QRegExp>
#include <QString>

// One test on one PHP value. Every match reads the value afresh.
class VCondition
{
public:
    explicit VCondition(VPHPGlobal* global) : global(global) {}
    virtual ~VCondition();
    virtual bool match() = 0;

    VPHPGlobal* global; // not owned: the rule's data keeps it
};

class VConditionExists : public VCondition
{
public:
    using VCondition::VCondition;
    bool match() override;

    QString value;
};

class VConditionNotExists : public VConditionExists
{
public:
    using VConditionExists::VConditionExists;
    bool match() override;
};

class VConditionEquals : public VCondition
{
public:
    VConditionEquals(VPHPGlobal* global, const QString& value) : VCondition(global), value(value) {}
    bool match() override;

    QString value;
};

class VConditionNotEquals : public VConditionEquals
{
public:
    using VConditionEquals::VConditionEquals;
    bool match() override;
};

// The whole value must fit the expression; nothing is searched for inside it.
class VConditionRegexpMatch : public VCondition
{
public:
    VConditionRegexpMatch(VPHPGlobal* global, const QString& pattern,
                          Qt::CaseSensitivity cs = Qt::CaseSensitive)
        : VCondition(global), regex(pattern, cs)
    {
    }
    bool match() override;

    QRegExp regex;
};

class VConditionInsensitiveRegexpMatch : public VCondition
{
public:
    VConditionInsensitiveRegexpMatch(VPHPGlobal* global, const QString& pattern)
        : VCondition(global), regex(pattern, Qt::CaseInsensitive)
    {
    }
    bool match() override;

    QRegExp regex;
};

class VConditionRegexpNotMatch : public VConditionRegexpMatch
{
public:
    using VConditionRegexpMatch::VConditionRegexpMatch;
    bool match() override;
};

class VConditionInsensitiveRegexpNotMatch : public VConditionRegexpMatch
{
public:
    VConditionInsensitiveRegexpNotMatch(VPHPGlobal* global, const QString& pattern)
        : VConditionRegexpMatch(global, pattern, Qt::CaseInsensitive)
    {
    }
    bool match() override;
};

class VConditionCreator
{
public:
    virtual ~VConditionCreator();
    virtual VCondition* create(VPHPGlobal* global, const QString& value) = 0;
};

#define V_CONDITION_CREATOR(Creator, Condition)                                                  \
    class Creator : public VConditionCreator                                                     \
    {                                                                                            \
    public:                                                                                      \
        VCondition* create(VPHPGlobal* global, const QString& value) override                  \
        {                                                                                        \
            return new Condition(global, value);                                                 \
        }                                                                                        \
    };

V_CONDITION_CREATOR(VConditionEqualsCreator, VConditionEquals)
V_CONDITION_CREATOR(VConditionNotEqualsCreator, VConditionNotEquals)
V_CONDITION_CREATOR(VConditionRegexpMatchCreator, VConditionRegexpMatch)
V_CONDITION_CREATOR(VConditionInsensitiveRegexpMatchCreator, VConditionInsensitiveRegexpMatch)
V_CONDITION_CREATOR(VConditionRegexpNotMatchCreator, VConditionRegexpNotMatch)
V_CONDITION_CREATOR(VConditionInsensitiveRegexpNotMatchCreator, VConditionInsensitiveRegexpNotMatch)
#undef V_CONDITION_CREATOR

class VConditionExistsCreator : public VConditionCreator
{
public:
    VCondition* create(VPHPGlobal* global, const QString&) override { return new VConditionExists(global); }
};

class VConditionNotExistsCreator : public VConditionCreator
{
public:
    VCondition* create(VPHPGlobal* global, const QString&) override { return new VConditionNotExists(global); }
};

// The creators by match word, for the whole process.
class ConditionFactory
{
public:
    static ConditionFactory* instance();
    // A new condition for `word`, or null for a word that isn't known.
    VCondition* create(const QString& word, VPHPGlobal* global, const QString& value) const;
    // Enters a creator, deleting one already entered under the word.
    void registerCreator(const QString& word, VConditionCreator* creator);

private:
    ConditionFactory();
    QHash<QString, VConditionCreator*> creators;
};
