/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// The translators' side: the catalogue template in the tree lists exactly
// the texts the code marks for translation (extracted again, as the
// translation tooling extracts them), and the Russian catalogue translates
// every one of them, none left fuzzy or empty.

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

namespace
{
const QDir source(QStringLiteral(ZAV_SOURCE_DIR));
const QString templateName = QStringLiteral("po/zav-screensaver_slideshow.pot");

struct Entry {
    QString id;
    QString translation;
    bool fuzzy = false;
};

// The entries of a catalogue by their texts, the header left out. A text
// may continue on the following lines; only the escapes the texts here use
// are undone.
QMultiMap<QString, Entry> entries(const QString &path)
{
    QFile file(path);
    file.open(QIODevice::ReadOnly | QIODevice::Text);
    QMultiMap<QString, Entry> result;
    Entry entry;
    QString *target = nullptr;
    // A blank line ends an entry; one is added for the last.
    const QStringList lines = QString::fromUtf8(file.readAll() + "\n").split(QLatin1Char('\n'));
    for (const QString &line : lines) {
        if (line.trimmed().isEmpty()) {
            if (!entry.id.isEmpty()) {
                result.insert(entry.id, entry);
            }
            entry = Entry();
            target = nullptr;
        } else if (line.startsWith(QLatin1String("#,"))) {
            entry.fuzzy = line.contains(QLatin1String("fuzzy"));
        } else if (line.startsWith(QLatin1String("msgid "))) {
            target = &entry.id;
        } else if (line.startsWith(QLatin1String("msgstr "))) {
            target = &entry.translation;
        } else if (!line.startsWith(QLatin1Char('"'))) {
            // Another comment, a context or a plural form.
            target = nullptr;
        }
        if (target) {
            QString text = line.mid(line.indexOf(QLatin1Char('"')) + 1);
            text.chop(1);
            *target += text.replace(QLatin1String("\\\""), QLatin1String("\"")).replace(QLatin1String("\\n"), QLatin1String("\n"));
        }
    }
    return result;
}
}

class CatalogueTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void templateListsEveryTextOfTheCode()
    {
        if (QStandardPaths::findExecutable(QStringLiteral("xgettext")).isEmpty()) {
            QSKIP("xgettext is not installed here");
        }
        QTemporaryDir extracted;
        QVERIFY(extracted.isValid());
        QProcess extraction;
        extraction.setWorkingDirectory(source.path());
        extraction.start(QStringLiteral("bash"), {QStringLiteral("scripts/extract-messages.sh"), extracted.path()});
        QVERIFY(extraction.waitForFinished(60000));
        QVERIFY2(extraction.exitCode() == 0, extraction.readAllStandardError().constData());

        const QStringList fresh = entries(extracted.filePath(QStringLiteral("zav-screensaver_slideshow.pot"))).keys();
        // The plug-in's name, its message without images, and the dialog.
        QVERIFY(fresh.contains(QStringLiteral("Slide show")));
        QVERIFY(fresh.size() >= 20);
        QCOMPARE(entries(source.filePath(templateName)).keys(), fresh);
    }

    void russianCatalogueTranslatesEveryText()
    {
        const QMultiMap<QString, Entry> wanted = entries(source.filePath(templateName));
        QVERIFY(!wanted.isEmpty());
        const QMultiMap<QString, Entry> russian = entries(source.filePath(QStringLiteral("po/ru/zav-screensaver_slideshow.po")));
        for (const QString &id : wanted.keys()) {
            QVERIFY2(russian.contains(id), qPrintable(QStringLiteral("not in the Russian catalogue: ") + id));
            QVERIFY2(!russian.value(id).fuzzy, qPrintable(QStringLiteral("fuzzy: ") + id));
            QVERIFY2(!russian.value(id).translation.isEmpty(), qPrintable(QStringLiteral("untranslated: ") + id));
        }
        // Nothing the code no longer has.
        QCOMPARE(russian.keys(), wanted.keys());
    }
};

QTEST_GUILESS_MAIN(CatalogueTest)

#include "cataloguetest.moc"
