/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#include "host/screensaverinterface.h"
#include "plugin/pluginslideshowloader.h"
#include "slideshow/slideshow.h"
#include "testutils.h"

#include <QApplication>
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

// The record Qt's plug-in loader reads: a fixed header, then a CBOR map of
// the interface identifier (key 2) and the class name (key 3).
QByteArray expectedMetadata()
{
    const QByteArray iid("zav-screensaver/0.0");
    const QByteArray className("PluginSlideShowLoader");
    QByteArray record("QTMETADATA !");
    record.append(char(0)); // format version
    record.append(char(QT_VERSION_MAJOR));
    record.append(char(QT_VERSION_MINOR));
#ifdef QT_NO_DEBUG
    record.append(char(0)); // built in release mode, like this test
#else
    record.append(char(1)); // Qt marks a debug build, and so would this test's build
#endif
    record.append(char(0xbf)); // map of indefinite length
    record.append(char(0x02));
    record.append(char(0x60 + iid.size())); // text string, length in the initial byte
    record.append(iid);
    record.append(char(0x03));
    record.append(char(0x60 + className.size()));
    record.append(className);
    record.append(char(0xff)); // break
    return record;
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

    void rootInstanceCastsToTheInterface()
    {
        QObject *root = m_instance();
        QVERIFY(root);
        // Through the interface identifier: the module has its own copy of
        // the interface's meta-object.
        auto *loader = qobject_cast<AbstractPluginScreenSaverLoader *>(root);
        QVERIFY(loader);
        QCOMPARE(static_cast<QObject *>(loader), root);
        QCOMPARE(root->qt_metacast("zav-screensaver/0.0"), static_cast<void *>(root));
        QCOMPARE(root->qt_metacast("Dm::ScreenSaver::PluginSlideShowLoader"), static_cast<void *>(root));
        QCOMPARE(root->qt_metacast("AbstractPluginScreenSaverLoader"), static_cast<void *>(root));
        QCOMPARE(root->qt_metacast("QObject"), static_cast<void *>(root));
        QCOMPARE(root->qt_metacast("zav-screensaver/0.1"), nullptr);
        QCOMPARE(root->qt_metacast(nullptr), nullptr);
        QCOMPARE(root->metaObject()->superClass()->className(), "AbstractPluginScreenSaverLoader");
    }

    void pluginLoaderGivesTheSameRootInstance()
    {
        QPluginLoader loader(m_path);
        QCOMPARE(loader.metaData().value(QStringLiteral("IID")).toString(), QStringLiteral("zav-screensaver/0.0"));
        QCOMPARE(loader.metaData().value(QStringLiteral("className")).toString(), QStringLiteral("PluginSlideShowLoader"));
        QVERIFY(!loader.metaData().contains(QStringLiteral("MetaData")));
        QCOMPARE(loader.instance(), m_instance());
        // Hand back this loader's use of the library; the other use keeps it
        // loaded, and the root instance with it.
        loader.unload();
        QVERIFY(m_library.isLoaded());
        QVERIFY(m_instance());
    }

    void createScreenSaverGivesDistinctSlideShows()
    {
        auto *loader = qobject_cast<AbstractPluginScreenSaverLoader *>(m_instance());
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
        auto *loader = qobject_cast<AbstractPluginScreenSaverLoader *>(m_instance());
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

    void constructorIgnoresTheParent()
    {
        QObject owner;
        auto *loader = new PluginSlideShowLoader(&owner);
        QPointer<PluginSlideShowLoader> guard = loader;
        QCOMPARE(loader->parent(), nullptr);
        QVERIFY(owner.children().isEmpty());
        {
            QObject otherOwner;
            PluginSlideShowLoader another(&otherOwner);
            QCOMPARE(another.parent(), nullptr);
        }
        delete loader;
        QVERIFY(guard.isNull());
    }

    void loaderMetaObject()
    {
        PluginSlideShowLoader loader;
        QCOMPARE(loader.metaObject(), &PluginSlideShowLoader::staticMetaObject);
        QCOMPARE(PluginSlideShowLoader::staticMetaObject.className(), "Dm::ScreenSaver::PluginSlideShowLoader");
        QCOMPARE(PluginSlideShowLoader::staticMetaObject.superClass(), &AbstractPluginScreenSaverLoader::staticMetaObject);
        // No signals, slots or properties of its own.
        QCOMPARE(PluginSlideShowLoader::staticMetaObject.methodCount(), PluginSlideShowLoader::staticMetaObject.methodOffset());
        QCOMPARE(PluginSlideShowLoader::staticMetaObject.propertyCount(), PluginSlideShowLoader::staticMetaObject.propertyOffset());
        QCOMPARE(loader.qt_metacast("Dm::ScreenSaver::PluginSlideShowLoader"), static_cast<void *>(&loader));
        QCOMPARE(loader.qt_metacast("zav-screensaver/0.0"), static_cast<void *>(&loader));
        QCOMPARE(loader.qt_metacast("AbstractPluginScreenSaverLoader"), static_cast<void *>(&loader));
        QCOMPARE(loader.qt_metacast("Dm::ScreenSaver::SlideShow"), nullptr);
        QCOMPARE(qobject_cast<AbstractPluginScreenSaverLoader *>(&loader), &loader);
    }

    void directLoaderCreatesSlideShows()
    {
        const PluginSlideShowLoader loader;
        QWidget parent;
        AbstractScreenSaver *first = loader.createScreenSaver(&parent);
        AbstractScreenSaver *second = loader.createScreenSaver(&parent);
        QVERIFY(first != second);
        QVERIFY(qobject_cast<SlideShow *>(first));
        QVERIFY(qobject_cast<SlideShow *>(second));
        QCOMPARE(first->parentWidget(), &parent);
        QCOMPARE(second->parentWidget(), &parent);
        // No parent: the widget is the caller's.
        AbstractScreenSaver *orphan = loader.createScreenSaver(nullptr);
        QVERIFY(qobject_cast<SlideShow *>(orphan));
        QCOMPARE(orphan->parent(), nullptr);
        delete orphan;
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
        const QSet<QString> linkerMarkers = {
            QStringLiteral("__bss_start"),
            QStringLiteral("_edata"),
            QStringLiteral("_end"),
            QStringLiteral("_init"),
            QStringLiteral("_fini"),
        };
        // The undefined-behaviour sanitizer's type checks make the compiler
        // emit the type records of Qt's own classes (weak, vague linkage);
        // they keep the visibility that Qt's headers give those classes.
        const QRegularExpression qtTypeRecord(QStringLiteral("_ZT[IS][0-9]+Q[A-Za-z0-9_]*"));
        QStringList exported;
        const QList<QByteArray> lines = process.readAllStandardOutput().split('\n');
        for (const QByteArray &line : lines) {
            const QStringList fields = QString::fromLatin1(line).split(QLatin1Char(' '), Qt::SkipEmptyParts);
            if (fields.size() < 3 || linkerMarkers.contains(fields.at(2))) {
                continue;
            }
            if (fields.at(1) == QLatin1String("V") && qtTypeRecord.match(fields.at(2)).capturedLength() == fields.at(2).size()) {
                continue;
            }
            exported.append(fields.at(1) + QLatin1Char(' ') + fields.at(2));
        }
        exported.sort();
        QCOMPARE(exported, (QStringList{QStringLiteral("T qt_plugin_instance"), QStringLiteral("T qt_plugin_query_metadata")}));
    }
};

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    PluginLoaderTest test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "pluginloadertest.moc"
