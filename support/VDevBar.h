#pragma once

#include <QDateTime>

// The developer toolbar's side of a request. The toolbar itself is another
// component; when it collects for the current request it marks the time here,
// and the page cache keeps out of the way while that mark stands.
class VDevBar
{
public:
    static VDevBar* instance();

    // Null except while the toolbar collects for the request.
    QDateTime collectionStarted() const { return m_collectionStarted; }
    void startCollection() { m_collectionStarted = QDateTime::currentDateTime(); }
    void stopCollection() { m_collectionStarted = QDateTime(); }

    // Whether the toolbar gathers what the script does; switched off around
    // calls the page cache makes into the script on its own account.
    bool isCollectionEnabled() const { return m_collectionEnabled; }
    void setCollectionEnabled(bool enabled) { m_collectionEnabled = enabled; }

private:
    QDateTime m_collectionStarted;
    bool m_collectionEnabled = false;
};
