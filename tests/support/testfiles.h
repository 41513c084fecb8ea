#pragma once

// File helpers shared by the tests that build packages, bundles and fake
// tools in a scratch folder.

#include <QByteArray>
#include <QString>
#include <QStringList>

// Makes the folders on the way; executable means for everyone, as a bundle's
// binary or a tool on PATH must be.
bool writeFile(const QString &path, const QByteArray &content, bool executable = false);
QByteArray readFile(const QString &path);

// Below base, a file holding "content of <entry>" for each entry, or a
// folder for an entry that ends in "/".
bool makeLayout(const QString &base, const QStringList &layout);

// A bundle as the swap script checks it: an executable and an Info.plist
// holding the short version, which Contents/Resources/version repeats.
bool writeBundle(const QString &path, const QByteArray &version);

// The zip archive of the folder's contents, made with the zip tool; empty on
// failure.
QByteArray zipFolder(const QString &folder);
QByteArray zipLayout(const QStringList &layout);

QString sha256Hex(const QByteArray &data);

// A stand-in for a macOS tool, placed in dir: it records "name arguments" in
// $FAKE_LOG and then runs body.
bool writeFakeTool(const QString &dir, const QString &name, const QByteArray &body);
