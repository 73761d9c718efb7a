#pragma once

#include "VPHPGlobalsEvaluator.h"

// Rules read the request's superglobals from the engine through this.
class EngineValueSource : public VPHPValueSource
{
public:
    static EngineValueSource* instance();

    QByteArray elementValue(const QByteArray& globalName, const QList<QByteArray>& keys) override;
    QByteArray wholeValue(const QByteArray& globalName) override;
    bool globalExists(const QByteArray& globalName) override;
    bool elementExists(const QByteArray& globalName, const QList<QByteArray>& keys) override;
};
