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
const QString templateName = QStringLiteral("po/zav-screensaver_slideshow.pot");
const QString russianName = QStringLiteral("po/ru/zav-screensaver_slideshow.po");

struct Entry {
    QString id;
    QString translation;
    bool fuzzy = false;
};

// The entries of a catalogue, the header left out. Strings may continue on
// the following lines; only the escapes the texts here use are undone.
QList<Entry> entries(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        return {};
    }
    const QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
    QList<Entry> result;
    Entry entry;
    QString *target = nullptr;
    const auto unquoted = [](const QString &text) {
        QString value = text.mid(1, text.size() - 2);
        value.replace(QLatin1String("\\\""), QLatin1String("\""));
        value.replace(QLatin1String("\\n"), QLatin1String("\n"));
        return value;
    };
    const auto finish = [&] {
        if (!entry.id.isEmpty()) {
            result.append(entry);
        }
        entry = Entry();
    };
    for (const QString &line : lines) {
        if (line.startsWith(QLatin1String("#,")) && line.contains(QLatin1String("fuzzy"))) {
            finish();
            entry.fuzzy = true;
            target = nullptr;
        } else if (line.startsWith(QLatin1String("msgid "))) {
            if (!entry.id.isEmpty()) {
                finish();
            }
            entry.id = unquoted(line.mid(6));
            target = &entry.id;
        } else if (line.startsWith(QLatin1String("msgstr "))) {
            entry.translation = unquoted(line.mid(7));
            target = &entry.translation;
        } else if (line.startsWith(QLatin1Char('"')) && target) {
            *target += unquoted(line);
        } else if (line.trimmed().isEmpty()) {
            finish();
            target = nullptr;
        }
    }
    finish();
    return result;
}

QStringList ids(const QList<Entry> &list)
{
    QStringList result;
    for (const Entry &entry : list) {
        result.append(entry.id);
    }
    result.sort();
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
        extraction.setWorkingDirectory(QStringLiteral(ZAV_SOURCE_DIR));
        extraction.start(QStringLiteral("bash"), {QStringLiteral("scripts/extract-messages.sh"), extracted.path()});
        QVERIFY(extraction.waitForFinished(60000));
        QVERIFY2(extraction.exitCode() == 0, extraction.readAllStandardError().constData());

        const QStringList fresh = ids(entries(QDir(extracted.path()).filePath(QStringLiteral("zav-screensaver_slideshow.pot"))));
        const QStringList kept = ids(entries(QDir(QStringLiteral(ZAV_SOURCE_DIR)).filePath(templateName)));
        // The plug-in's name, its message without images, and the dialog.
        QVERIFY(fresh.contains(QStringLiteral("Slide show")));
        QVERIFY(fresh.size() >= 20);
        QCOMPARE(kept, fresh);
    }

    void russianCatalogueTranslatesEveryText()
    {
        const QList<Entry> wanted = entries(QDir(QStringLiteral(ZAV_SOURCE_DIR)).filePath(templateName));
        QVERIFY(!wanted.isEmpty());
        const QList<Entry> russian = entries(QDir(QStringLiteral(ZAV_SOURCE_DIR)).filePath(russianName));
        QHash<QString, Entry> byId;
        for (const Entry &entry : russian) {
            byId.insert(entry.id, entry);
        }
        for (const Entry &entry : wanted) {
            QVERIFY2(byId.contains(entry.id), qPrintable(QStringLiteral("not in the Russian catalogue: ") + entry.id));
            const Entry &translated = byId.value(entry.id);
            QVERIFY2(!translated.fuzzy, qPrintable(QStringLiteral("fuzzy: ") + entry.id));
            QVERIFY2(!translated.translation.isEmpty(), qPrintable(QStringLiteral("untranslated: ") + entry.id));
        }
        // Nothing the code no longer has.
        QCOMPARE(ids(russian), ids(wanted));
    }
};

QTEST_GUILESS_MAIN(CatalogueTest)

#include "cataloguetest.moc"
