#pragma once

#include <QDataStream>
#include <QSharedPointer>
#include <QString>

// A message of the product's daemons' stream. Each kind writes its own
// fields; the socket layer frames them (see statistics/WIRE_FORMAT.md).
class VMessageBase
{
public:
    explicit VMessageBase(int kind) : m_kind(kind) {}
    virtual ~VMessageBase();

    int kind() const { return m_kind; }

    virtual QDataStream& readFrom(QDataStream& stream) = 0;
    virtual QDataStream& writeTo(QDataStream& stream) const = 0;
    // Folds another message of the same aggregation key into this one.
    virtual void merge(const QSharedPointer<VMessageBase>& other) = 0;
    virtual QString aggregationKey() const = 0;
    virtual void assignFrom(const QSharedPointer<VMessageBase>& other) = 0;
    virtual QString toString() const = 0;

private:
    int m_kind;
};
