#pragma once

#include <QByteArray>
#include <QString>
#include <exception>

// The one exception class of the core. Thrown by value, caught by reference,
// and never let through to the engine.
class VException : public std::exception
{
public:
    explicit VException(const QString& message);
    // Carries the place of the throw; what() then starts with "file:line ".
    VException(const QString& message, const char* file, int line);
    ~VException() noexcept override;

    // Latin-1 text, computed once and kept for the life of the object.
    const char* what() const noexcept override;

    QString message() const { return m_message; }

private:
    mutable QString m_message;
    mutable QByteArray m_whatCache;
    const char* m_file;
    int m_line;
};
