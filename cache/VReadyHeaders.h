#pragma once

#include <QByteArray>
#include <QLinkedList>

// A page's header lines in the form its hits send them, prepared when the
// page is stored: each line with the length of its name and whether it
// replaces what the engine already holds under that name (the first line
// of a name does, later ones join it). It also says which response rules
// the page passed when it was stored, for which application, so that a hit
// under the same rules need not ask them again. Stored inside the page's
// record after the body (see STORE_FORMAT.md); a hit walks it where it
// lies, without building a list.
class VReadyHeaders
{
public:
    struct Line
    {
        const char* text;
        int length;
        int nameLength;
        bool replaces;
    };

    // The section that goes into a record: `rulesDigest` the response
    // rules the page passed (empty when it didn't pass them), for `appId`.
    static QByteArray section(const QLinkedList<QByteArray>& lines, const QByteArray& rulesDigest, qint32 appId);
    // Takes the section at the start of `data`, where it stays and must
    // outlive this object. False, and nothing taken, for anything but a
    // whole section of this version whose checksum holds.
    bool view(const char* data, int size);
    // The same lines prepared in memory, for a record stored without them.
    void prepare(const QLinkedList<QByteArray>& lines);
    // Takes its own copy of a section it views.
    void detach() { m_section = QByteArray(m_section.constData(), m_section.size()); }

    bool isNull() const { return m_section.isNull(); }
    // Whether the page passed the response rules of `rulesDigest` for `appId`.
    bool passed(const QByteArray& rulesDigest, qint32 appId) const;
    // Whether a line has that name, compared without regard to case.
    bool hasName(const char* name, int length) const;

    // The lines in order: `at` starts at 0, each call moves it on; false at the end.
    bool next(int& at, Line& line) const;

private:
    QByteArray m_section;
};
