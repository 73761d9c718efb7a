#pragma once

#include <QString>
#include <QVariant>

// One deployed application. An id of -1 means no application.
struct ApplicationRecord
{
    qint32 id = -1;
    QString baseUrl;
    QString path;
    QString name;
    QString webserverPath;
    QString version;
};

// One deployed library, as the deployment table lists it. Kept beside the
// applications; the page cache reads nothing of it.
struct LibraryRecord
{
    QVariant columns[5];
};
