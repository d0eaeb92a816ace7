/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// A host's view of the plug-in (found by file name, loaded by Qt's plug-in
// loader, driven through the shared header); its exports; that header alone.

#include "fusefolder.h"
#include "host/screensaverinterface.h"
#include "plugin/pluginslideshowloader.h"
#include "testutils.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLibrary>
#include <QPluginLoader>
#include <QPointer>
#include <QProcess>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QVBoxLayout>

using namespace Dm::ScreenSaver;

namespace
{
using InstanceFunction = QObject *(*)();

#ifdef QT_NO_DEBUG
const char debugBuild = 0;
#else
const char debugBuild = 1; // Qt marks a debug build, and so would this test's build
#endif

// The record Qt's loader reads: a header (format 0, Qt's version, debug build), then an indefinite
// CBOR map (0xbf to the break 0xff) of identifier (key 2) and class name (key 3), inline-length texts.
QByteArray expectedMetadata()
{
    const QByteArray iid("zav-screensaver/0.0");
    const QByteArray className("PluginSlideShowLoader");
    const QByteArray header = QByteArray("QTMETADATA !") + char(0) + char(QT_VERSION_MAJOR) + char(QT_VERSION_MINOR) + debugBuild;
    return header + char(0xbf) + char(0x02) + char(0x60 + iid.size()) + iid + char(0x03) + char(0x60 + className.size()) + className + char(0xff);
}

QRgb centrePixel(QWidget *window)
{
    const QImage image = window->grab().toImage().convertToFormat(QImage::Format_ARGB32);
    return image.pixel(image.width() / 2, image.height() / 2);
}

// A screensaver of the plug-in filling a shown window, as a greeter shows it.
AbstractScreenSaver *showIn(QWidget *window, AbstractPluginScreenSaverLoader *factory)
{
    auto *layout = new QVBoxLayout(window);
    layout->setContentsMargins(0, 0, 0, 0);
    AbstractScreenSaver *screenSaver = factory->createScreenSaver(window);
    layout->addWidget(screenSaver);
    window->resize(320, 240);
    window->show();
    return QTest::qWaitForWindowExposed(window) ? screenSaver : nullptr;
}
}

class HostLoadTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_images;
    QString m_pluginPath;
    // The module's entry points, through a handle given back before the host's loader takes it.
    QLibrary m_library;
    InstanceFunction m_instance = nullptr;
    std::unique_ptr<QPluginLoader> m_loader;
    std::unique_ptr<TestUtils::LogRecorder> m_recorder;

    AbstractPluginScreenSaverLoader *factory() const
    {
        return m_loader ? qobject_cast<AbstractPluginScreenSaverLoader *>(m_loader->instance()) : nullptr;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_images.isValid());
        // Solid colours far apart, small enough for a quick fitting.
        TestUtils::writeSolidImage(m_images.path(), QStringLiteral("1-red.png"), QSize(64, 48), QColor(220, 20, 20));
        TestUtils::writeSolidImage(m_images.path(), QStringLiteral("2-green.png"), QSize(64, 48), QColor(20, 200, 40));
        TestUtils::writeSolidImage(m_images.path(), QStringLiteral("3-blue.png"), QSize(64, 48), QColor(30, 40, 210));
        // A screensaver with the defaults reports the missing default directory.
        m_recorder.reset(new TestUtils::LogRecorder);
        m_pluginPath = QDir(QStringLiteral(ZAV_PLUGIN_DIR)).filePath(pluginFileNameTemplate.arg(QStringLiteral("slideshow")));
        m_library.setFileName(m_pluginPath);
        QVERIFY2(m_library.load(), qPrintable(m_library.errorString()));
        m_instance = reinterpret_cast<InstanceFunction>(m_library.resolve("qt_plugin_instance"));
        QVERIFY(m_instance);
    }

    void cleanupTestCase()
    {
        m_recorder.reset();
    }

    void rootInstanceIsSharedUntilDeleted()
    {
        QObject *first = m_instance();
        QVERIFY(first);
        QCOMPARE(m_instance(), first);
        QCOMPARE(first->parent(), nullptr);
        first->setObjectName(QStringLiteral("first"));
        delete first;

        // A fresh object, told apart by its name (the address may be reused).
        QObject *second = m_instance();
        QVERIFY(second);
        QCOMPARE(second->objectName(), QString());
        QCOMPARE(second->metaObject()->className(), "Dm::ScreenSaver::PluginSlideShowLoader");
        QCOMPARE(m_instance(), second);

        // Qt's plug-in loader hands out the same one.
        QPluginLoader loader(m_pluginPath);
        // As the host's loader below: the default hint would pin the module, so the check could not fail.
        loader.setLoadHints(QLibrary::LoadHints());
        QCOMPARE(loader.instance(), m_instance());
        // Given back; the test's own use keeps it loaded, root instance and all.
        loader.unload();
        QVERIFY(m_library.isLoaded());
        QVERIFY(m_instance());
    }

    void screenSaversAreDistinctAndOutliveTheLoader()
    {
        auto *loader = qobject_cast<AbstractPluginScreenSaverLoader *>(m_instance());
        QVERIFY(loader);
        auto parent = std::make_unique<QWidget>();
        AbstractScreenSaver *first = loader->createScreenSaver(parent.get());
        AbstractScreenSaver *second = loader->createScreenSaver(parent.get());
        QVERIFY(first && second && first != second);
        for (AbstractScreenSaver *screenSaver : {first, second}) {
            QCOMPARE(screenSaver->parentWidget(), parent.get());
            QCOMPARE(screenSaver->metaObject()->className(), "Dm::ScreenSaver::SlideShow");
        }
        QCOMPARE(parent->children().size(), 2);
        // Without a parent the widget is the caller's.
        std::unique_ptr<AbstractScreenSaver> orphan(loader->createScreenSaver(nullptr));
        QCOMPARE(orphan->parent(), nullptr);

        // Independent: settings of one leave the other alone.
        first->setProperty(QVariantMap{{QStringLiteral("Effect"), 300}});
        QCOMPARE(first->property().value(QStringLiteral("Effect")), QVariant(300));
        QCOMPARE(second->property().value(QStringLiteral("Effect")), QVariant(500));

        // Both outlive the loader that made them.
        delete loader;
        first->setProperty(QVariantMap{{TestUtils::Key::autoSwitch, 2}});
        first->start();
        first->stop();
        QCOMPARE(first->property().value(TestUtils::Key::autoSwitch), QVariant(2));
        // The next root instance is a new loader.
        QVERIFY(qobject_cast<AbstractPluginScreenSaverLoader *>(m_instance()));

        // Owned by the parent.
        QPointer<AbstractScreenSaver> firstGuard = first;
        QPointer<AbstractScreenSaver> secondGuard = second;
        parent.reset();
        QVERIFY(firstGuard.isNull() && secondGuard.isNull());
    }

    void linkedLoaderIgnoresItsParent()
    {
        QObject owner;
        QPointer<PluginSlideShowLoader> loader = new PluginSlideShowLoader(&owner);
        QCOMPARE(loader->parent(), nullptr);
        QVERIFY(owner.children().isEmpty());
        QCOMPARE(loader->metaObject(), &PluginSlideShowLoader::staticMetaObject);
        delete loader.data();
    }

    void metadataRecordMatchesByteForByte()
    {
        const QByteArray expected = expectedMetadata();
        QCOMPARE(expected.size(), 62);

        QFile file(m_pluginPath);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray contents = file.readAll();
        const QByteArray magic("QTMETADATA !");
        const int offset = contents.indexOf(magic);
        QVERIFY(offset >= 0);
        QCOMPARE(contents.indexOf(magic, offset + 1), -1);
        QCOMPARE(contents.mid(offset, expected.size()).toHex(' '), expected.toHex(' '));

        // And what the entry point hands out is that record.
        auto metadata = reinterpret_cast<const char *(*)()>(m_library.resolve("qt_plugin_query_metadata"));
        QVERIFY(metadata);
        QCOMPARE(QByteArray(metadata(), expected.size()).toHex(' '), expected.toHex(' '));
    }

    void onlyThePluginEntryIsExported()
    {
        const QString nm = QStandardPaths::findExecutable(QStringLiteral("nm"));
        if (nm.isEmpty()) {
            QSKIP("nm is not installed");
        }
        QProcess process;
        process.start(nm, {QStringLiteral("-D"), QStringLiteral("--defined-only"), m_pluginPath});
        QVERIFY(process.waitForFinished(30000));
        QCOMPARE(process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(process.exitCode(), 0);

        // The linker's own markers of the data segment are always there.
        const QStringList linkerMarkers = QStringLiteral("__bss_start _edata _end _init _fini").split(QLatin1Char(' '));
        // The undefined-behaviour sanitizer emits (weak) type records of Qt's classes, visible as Qt makes them.
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

    // Nothing of the module may outlive it; the host below loads it anew.
    void libraryIsGivenBackWithNothingLeft()
    {
        delete m_instance();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QVERIFY(m_library.unload());
    }

    void findsThePluginByItsFileName()
    {
        QStringList names;
        const QStringList files = QDir(QStringLiteral(ZAV_PLUGIN_DIR)).entryList(QDir::Files);
        for (const QString &file : files) {
            const QRegularExpressionMatch match = pluginFileNameRegExp.match(file);
            if (match.hasMatch() && match.captured(0) == file) {
                names.append(match.captured(1));
            }
        }
        QVERIFY2(names.contains(QStringLiteral("slideshow")), qPrintable(files.join(QLatin1Char(' '))));
    }

    // The one check of the cast to the loader interface: as a host makes it.
    void rootInstanceCastsThroughTheInterfaceIdentifier()
    {
        m_loader.reset(new QPluginLoader(m_pluginPath));
        // As a host that really unloads: by default Qt's loader would keep the code mapped.
        m_loader->setLoadHints(QLibrary::LoadHints());
        QVERIFY(!m_loader->isLoaded());
        QObject *root = m_loader->instance();
        QVERIFY2(root, qPrintable(m_loader->errorString()));
        QVERIFY(m_loader->isLoaded());
        QCOMPARE(m_loader->instance(), root);
        QCOMPARE(root->metaObject()->superClass()->className(), "AbstractPluginScreenSaverLoader");
        // The module's copy of the interface's meta-object is not this side's: the identifier leads to it, the meta-object chain does not.
        QVERIFY(!root->metaObject()->inherits(&AbstractPluginScreenSaverLoader::staticMetaObject));
        QCOMPARE(static_cast<QObject *>(qobject_cast<AbstractPluginScreenSaverLoader *>(root)), root);
        for (const char *name : {"zav-screensaver/0.0", "AbstractPluginScreenSaverLoader", "Dm::ScreenSaver::PluginSlideShowLoader", "QObject"}) {
            QVERIFY2(root->qt_metacast(name) == root, name);
        }
        for (const char *name : {"zav-screensaver/0.1", "NoSuchInterface/1.0", "Dm::ScreenSaver::SlideShow"}) {
            QVERIFY2(!root->qt_metacast(name), name);
        }
        QCOMPARE(root->qt_metacast(nullptr), nullptr);
    }

    void screenSaverShowsTheSlidesAndSwitches()
    {
        QVERIFY(factory());
        QWidget window;
        QPointer<AbstractScreenSaver> screenSaver = showIn(&window, factory());
        QVERIFY(screenSaver);
        screenSaver->setProperty(TestUtils::settingsMap(m_images.path(), 1, 100, 1));

        // Cropped solid images fill the window once a fade is over; the fuzz is the opacity rounding.
        const int fuzz = 2;
        const QColor red(220, 20, 20);
        const QColor green(20, 200, 40);
        QTRY_VERIFY2_WITH_TIMEOUT(TestUtils::fuzzyColor(centrePixel(&window), red, fuzz), qPrintable(QColor(centrePixel(&window)).name()), 10000);

        // Started once the first slide shows, so a slow first fitting cannot skip it.
        screenSaver->start();
        QTRY_VERIFY2_WITH_TIMEOUT(TestUtils::fuzzyColor(centrePixel(&window), green, fuzz), qPrintable(QColor(centrePixel(&window)).name()), 10000);

        screenSaver->stop();
        QVERIFY(TestUtils::fuzzyColor(centrePixel(&window), green, fuzz));

        delete screenSaver.data();
        QCOMPARE(window.children().size(), 1); // the layout only
    }

    void settingsDialogIsReachedBySignature()
    {
        QVERIFY(factory());
        QWidget window;
        AbstractScreenSaver *screenSaver = factory()->createScreenSaver(&window);
        QVERIFY(screenSaver);
        // A host that knows only the first four keys.
        const QVariantMap settings = TestUtils::settingsMap(m_images.path(), 3, 700, 2);
        screenSaver->setProperty(settings);

        AbstractSettingDialog *dialog = screenSaver->settingWidget();
        QVERIFY(dialog);
        QCOMPARE(screenSaver->settingWidget(), dialog);
        // This side's copy of the signal is not the module's: connect by signature.
        QSignalSpy changed(dialog, SIGNAL(changed()));
        QVERIFY(changed.isValid());
        QVERIFY(QMetaObject::invokeMethod(dialog, "changed"));
        QCOMPARE(changed.count(), 1);
        // The dialog holds the settings in force, the two keys the host did not pass at their defaults.
        QVariantMap stored = settings;
        stored.insert(QStringLiteral("IncludeSubfolders"), false);
        stored.insert(QStringLiteral("Order"), 0);
        QCOMPARE(screenSaver->property(), stored);
        delete screenSaver;
    }

    // The host unloads the plug-in right after destroying a screensaver whose worker hangs in a read:
    // the thread is not waited for, but the code stays loaded while it lives: no crash once the read returns.
    void unloadsCleanlyWhileAThreadIsHeld()
    {
        QVERIFY(m_loader);
        TestUtils::FuseFolder fuse;
        if (!fuse.error().isEmpty()) {
            QSKIP(qPrintable(fuse.error()));
        }
        TestUtils::writeSolidImage(fuse.backing(), QStringLiteral("a.png"), QSize(64, 48), Qt::red);
        const int threadsBefore = TestUtils::processThreadCount();
        QPointer<QObject> root = m_loader->instance();
        QVERIFY(factory());
        auto window = std::make_unique<QWidget>();
        AbstractScreenSaver *screenSaver = showIn(window.get(), factory());
        QVERIFY(screenSaver);
        fuse.holdReads(true);
        screenSaver->setProperty(TestUtils::settingsMap(fuse.path(), 3600, 0, 1));
        QTRY_VERIFY(fuse.waitingReads() >= 1);
        window.reset();

        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QVERIFY2(m_loader->unload(), qPrintable(m_loader->errorString()));
        QVERIFY(!m_loader->isLoaded());
        QVERIFY(root.isNull());
        m_loader.reset();

        fuse.holdReads(false);
        QTRY_VERIFY_WITH_TIMEOUT(TestUtils::processThreadCount() <= threadsBefore, 30000);
        // Its code is still there for threads like that one.
        QFile maps(QStringLiteral("/proc/self/maps"));
        QVERIFY(maps.open(QIODevice::ReadOnly));
        QVERIFY(maps.readAll().contains(QFile::encodeName(QFileInfo(m_pluginPath).fileName())));
    }

    // The shared interface header on its own, and the linked loader's class.
    void abstractClasses()
    {
        // The base's own settingWidget, past the plug-in's override: none.
        std::unique_ptr<AbstractScreenSaver> screenSaver(PluginSlideShowLoader().createScreenSaver(nullptr));
        QCOMPARE(screenSaver->AbstractScreenSaver::settingWidget(), nullptr);

        // No properties, no slots; only the dialog adds a method: its signal.
        const auto verifyClass = [](const QMetaObject &meta, const char *name, const QMetaObject &base, int methods) {
            QCOMPARE(meta.className(), name);
            QCOMPARE(meta.superClass(), &base);
            QCOMPARE(meta.propertyCount(), meta.propertyOffset());
            QCOMPARE(meta.methodCount() - meta.methodOffset(), methods);
        };
        verifyClass(AbstractScreenSaver::staticMetaObject, "AbstractScreenSaver", QWidget::staticMetaObject, 0);
        verifyClass(AbstractPluginScreenSaverLoader::staticMetaObject, "AbstractPluginScreenSaverLoader", QObject::staticMetaObject, 0);
        verifyClass(AbstractSettingDialog::staticMetaObject, "AbstractSettingDialog", QDialog::staticMetaObject, 1);
        verifyClass(PluginSlideShowLoader::staticMetaObject, "Dm::ScreenSaver::PluginSlideShowLoader", AbstractPluginScreenSaverLoader::staticMetaObject, 0);
        // The one method: a signal without arguments.
        const QMetaObject &dialog = AbstractSettingDialog::staticMetaObject;
        QCOMPARE(dialog.indexOfSignal("changed()"), dialog.methodOffset());
        AbstractSettingDialog settingDialog;
        QCOMPARE(settingDialog.qt_metacast("AbstractSettingDialog"), static_cast<void *>(&settingDialog));
        QSignalSpy spy(&settingDialog, SIGNAL(changed()));
        QVERIFY(spy.isValid());
        Q_EMIT settingDialog.changed();
        QCOMPARE(spy.count(), 1);
    }

    void constants()
    {
        QCOMPARE(lockDefaultProperty, (QVariantMap{{QStringLiteral("ShowLock"), QStringLiteral("datetime")}, {QStringLiteral("LockShowTimeout"), 300}}));
        QCOMPARE(lockDefaultProperty.value(QStringLiteral("ShowLock")).userType(), int(QMetaType::QString));
        QCOMPARE(lockDefaultProperty.value(QStringLiteral("LockShowTimeout")).userType(), int(QMetaType::Int));
        QCOMPARE(pluginFileNameTemplate, QStringLiteral("libzav-screensaver_%1.so"));
        QCOMPARE(pluginFileNameRegExp.pattern(), QStringLiteral("libzav-screensaver_(.*)\\.so"));
        QCOMPARE(pluginFileNameRegExp.patternOptions(), QRegularExpression::NoPatternOption);
    }

    void pluginFileNameRegExpMatches_data()
    {
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<bool>("matches");
        QTest::addColumn<QString>("name");

        QTest::newRow("slideshow") << QStringLiteral("libzav-screensaver_slideshow.so") << true << QStringLiteral("slideshow");
        QTest::newRow("empty name") << QStringLiteral("libzav-screensaver_.so") << true << QString();
        QTest::newRow("inside a longer path") << QStringLiteral("/usr/lib/zav/screensavers/libzav-screensaver_clock.so") << true << QStringLiteral("clock");
        QTest::newRow("not anchored at the end") << QStringLiteral("libzav-screensaver_clock.so.1") << true << QStringLiteral("clock");
        QTest::newRow("other library") << QStringLiteral("libother_slideshow.so") << false << QString();
        QTest::newRow("no suffix") << QStringLiteral("libzav-screensaver_slideshow") << false << QString();
    }

    void pluginFileNameRegExpMatches()
    {
        QFETCH(QString, fileName);
        QFETCH(bool, matches);
        QFETCH(QString, name);

        const QRegularExpressionMatch match = pluginFileNameRegExp.match(fileName);
        QCOMPARE(match.hasMatch(), matches);
        if (matches) {
            QCOMPARE(match.captured(1), name);
        }
    }
};

QTEST_MAIN(HostLoadTest)

#include "hostloadtest.moc"
