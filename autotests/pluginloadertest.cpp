/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#include "host/screensaverinterface.h"
#include "plugin/pluginslideshowloader.h"
#include "testutils.h"

#include <QDir>
#include <QFile>
#include <QLibrary>
#include <QPluginLoader>
#include <QPointer>
#include <QProcess>
#include <QRegularExpression>
#include <QSet>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTest>

#include <memory>

using namespace Dm::ScreenSaver;

namespace
{
using InstanceFunction = QObject *(*)();
using MetadataFunction = const char *(*)();

const QString moduleFileName = QStringLiteral("libzav-screensaver_slideshow.so");

#ifdef QT_NO_DEBUG
const char debugBuild = 0;
#else
const char debugBuild = 1; // Qt marks a debug build, and so would this test's build
#endif

// The record Qt's plug-in loader reads: a fixed header (format version 0,
// Qt's version, whether a debug build), then a CBOR map of indefinite length
// (0xbf up to the break 0xff) of the interface identifier (key 2) and the
// class name (key 3), text strings with the length in the initial byte.
QByteArray expectedMetadata()
{
    const QByteArray iid("zav-screensaver/0.0");
    const QByteArray className("PluginSlideShowLoader");
    const QByteArray header = QByteArray("QTMETADATA !") + char(0) + char(QT_VERSION_MAJOR) + char(QT_VERSION_MINOR) + debugBuild;
    return header + char(0xbf) + char(0x02) + char(0x60 + iid.size()) + iid + char(0x03) + char(0x60 + className.size()) + className + char(0xff);
}
}

class PluginLoaderTest : public QObject
{
    Q_OBJECT

private:
    QString m_path;
    QLibrary m_library;
    InstanceFunction m_instance = nullptr;
    std::unique_ptr<TestUtils::LogRecorder> m_recorder;

    // The root instance as the interface (the cast itself is checked in
    // hostloadtest).
    AbstractPluginScreenSaverLoader *loader() const
    {
        return qobject_cast<AbstractPluginScreenSaverLoader *>(m_instance());
    }

private Q_SLOTS:
    void initTestCase()
    {
        // Every SlideShow reports the default directory, which is missing here.
        m_recorder.reset(new TestUtils::LogRecorder);
        m_path = QDir(QStringLiteral(ZAV_PLUGIN_DIR)).filePath(moduleFileName);
        QVERIFY2(QFile::exists(m_path), qPrintable(m_path));
        m_library.setFileName(m_path);
        QVERIFY2(m_library.load(), qPrintable(m_library.errorString()));
        m_instance = reinterpret_cast<InstanceFunction>(m_library.resolve("qt_plugin_instance"));
        QVERIFY(m_instance);
    }

    void cleanupTestCase()
    {
        // Nothing of the module may outlive it.
        if (m_instance) {
            delete m_instance();
        }
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QVERIFY(m_library.unload());
        m_recorder.reset();
    }

    void rootInstanceIsSharedUntilDeleted()
    {
        QObject *first = m_instance();
        QVERIFY(first);
        QCOMPARE(m_instance(), first);
        QCOMPARE(first->parent(), nullptr);
        QCOMPARE(first->metaObject()->className(), "Dm::ScreenSaver::PluginSlideShowLoader");

        first->setObjectName(QStringLiteral("first"));
        QSignalSpy destroyed(first, &QObject::destroyed);
        delete first;
        QCOMPARE(destroyed.count(), 1);

        // A fresh object (the allocator may well reuse the address, so tell
        // them apart by what was set on the first).
        QObject *second = m_instance();
        QVERIFY(second);
        QCOMPARE(second->objectName(), QString());
        QCOMPARE(second->metaObject()->className(), "Dm::ScreenSaver::PluginSlideShowLoader");
        QCOMPARE(m_instance(), second);
    }

    void pluginLoaderGivesTheSameRootInstance()
    {
        // Its metadata is checked as a host reads it (hostloadtest).
        QPluginLoader loader(m_path);
        QCOMPARE(loader.instance(), m_instance());
        // Hand back this loader's use of the library; the other use keeps it
        // loaded, and the root instance with it.
        loader.unload();
        QVERIFY(m_library.isLoaded());
        QVERIFY(m_instance());
    }

    void createScreenSaverGivesDistinctSlideShows()
    {
        auto *loader = this->loader();
        QVERIFY(loader);
        auto parent = std::make_unique<QWidget>();
        AbstractScreenSaver *first = loader->createScreenSaver(parent.get());
        AbstractScreenSaver *second = loader->createScreenSaver(parent.get());
        QVERIFY(first);
        QVERIFY(second);
        QVERIFY(first != second);
        for (AbstractScreenSaver *screenSaver : {first, second}) {
            QCOMPARE(screenSaver->parentWidget(), parent.get());
            QCOMPARE(screenSaver->metaObject()->className(), "Dm::ScreenSaver::SlideShow");
            QCOMPARE(screenSaver->metaObject()->superClass()->className(), "AbstractScreenSaver");
            QCOMPARE(screenSaver->settingGroupName(), QStringLiteral("SlideShow"));
            QCOMPARE(screenSaver->property(), screenSaver->defaultProperty());
        }
        QCOMPARE(parent->children().size(), 2);
        // Without a parent the widget is the caller's.
        std::unique_ptr<AbstractScreenSaver> orphan(loader->createScreenSaver(nullptr));
        QCOMPARE(orphan->parent(), nullptr);
        QCOMPARE(orphan->metaObject()->className(), "Dm::ScreenSaver::SlideShow");

        // Independent: settings of one leave the other alone.
        first->setProperty(QVariantMap{{QStringLiteral("Effect"), 300}});
        QCOMPARE(first->property().value(QStringLiteral("Effect")), QVariant(300));
        QCOMPARE(second->property().value(QStringLiteral("Effect")), QVariant(500));

        // Owned by the parent.
        QPointer<AbstractScreenSaver> firstGuard = first;
        QPointer<AbstractScreenSaver> secondGuard = second;
        parent.reset();
        QVERIFY(firstGuard.isNull());
        QVERIFY(secondGuard.isNull());
    }

    void screenSaversOutliveTheLoader()
    {
        auto *loader = this->loader();
        QVERIFY(loader);
        QWidget parent;
        QPointer<AbstractScreenSaver> screenSaver = loader->createScreenSaver(&parent);
        QVERIFY(screenSaver);
        delete loader;
        QVERIFY(screenSaver);
        screenSaver->setProperty(QVariantMap{{QStringLiteral("AutoSwitch"), 2}});
        screenSaver->start();
        screenSaver->stop();
        QCOMPARE(screenSaver->property().value(QStringLiteral("AutoSwitch")), QVariant(2));
        // The next root instance is a new loader.
        QVERIFY(m_instance());
        QVERIFY(m_instance() != static_cast<QObject *>(screenSaver.data()));
    }

    void linkedLoaderIgnoresItsParent()
    {
        QObject owner;
        QPointer<PluginSlideShowLoader> loader = new PluginSlideShowLoader(&owner);
        QCOMPARE(loader->parent(), nullptr);
        QVERIFY(owner.children().isEmpty());
        const QMetaObject &meta = PluginSlideShowLoader::staticMetaObject;
        QCOMPARE(loader->metaObject(), &meta);
        QCOMPARE(meta.className(), "Dm::ScreenSaver::PluginSlideShowLoader");
        QCOMPARE(meta.superClass(), &AbstractPluginScreenSaverLoader::staticMetaObject);
        // No signals, slots or properties of its own.
        QCOMPARE(meta.methodCount(), meta.methodOffset());
        QCOMPARE(meta.propertyCount(), meta.propertyOffset());
        delete loader.data();
        QVERIFY(loader.isNull());
    }

    void metadataRecordMatchesByteForByte()
    {
        const QByteArray expected = expectedMetadata();
        QCOMPARE(expected.size(), 62);

        QFile file(m_path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray contents = file.readAll();
        const QByteArray magic("QTMETADATA !");
        const int offset = contents.indexOf(magic);
        QVERIFY(offset >= 0);
        QCOMPARE(contents.indexOf(magic, offset + 1), -1);
        QCOMPARE(contents.mid(offset, expected.size()).toHex(' '), expected.toHex(' '));

        // And what the entry point hands out is that record.
        auto metadata = reinterpret_cast<MetadataFunction>(m_library.resolve("qt_plugin_query_metadata"));
        QVERIFY(metadata);
        const char *record = metadata();
        QVERIFY(record);
        QCOMPARE(QByteArray(record, expected.size()).toHex(' '), expected.toHex(' '));
    }

    void onlyThePluginEntryIsExported()
    {
        const QString nm = QStandardPaths::findExecutable(QStringLiteral("nm"));
        if (nm.isEmpty()) {
            QSKIP("nm is not installed");
        }
        QProcess process;
        process.start(nm, {QStringLiteral("-D"), QStringLiteral("--defined-only"), m_path});
        QVERIFY(process.waitForFinished(30000));
        QCOMPARE(process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(process.exitCode(), 0);

        // The linker's own markers of the data segment are always there.
        const QSet<QString> linkerMarkers = {QStringLiteral("__bss_start"),
                                             QStringLiteral("_edata"),
                                             QStringLiteral("_end"),
                                             QStringLiteral("_init"),
                                             QStringLiteral("_fini")};
        // The undefined-behaviour sanitizer's type checks make the compiler
        // emit the type records of Qt's own classes (weak, vague linkage);
        // they keep the visibility that Qt's headers give those classes.
        const QRegularExpression qtTypeRecord(QStringLiteral("_ZT[IS][0-9]+Q[A-Za-z0-9_]*"));
        QStringList exported;
        const QList<QByteArray> lines = process.readAllStandardOutput().split('\n');
        for (const QByteArray &line : lines) {
            const QStringList fields = QString::fromLatin1(line).split(QLatin1Char(' '), Qt::SkipEmptyParts);
            if (fields.size() >= 3 && !linkerMarkers.contains(fields.at(2))
                && !(fields.at(1) == QLatin1String("V") && qtTypeRecord.match(fields.at(2)).capturedLength() == fields.at(2).size())) {
                exported.append(fields.at(1) + QLatin1Char(' ') + fields.at(2));
            }
        }
        exported.sort();
        QCOMPARE(exported, (QStringList{QStringLiteral("T qt_plugin_instance"), QStringLiteral("T qt_plugin_query_metadata")}));
    }
};

QTEST_MAIN(PluginLoaderTest)

#include "pluginloadertest.moc"
