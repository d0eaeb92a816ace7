/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// A host's view of the plug-in: found by its file name, loaded through Qt's
// plug-in loader and driven only through the shared interface header; and
// that header on its own.

#include "fusefolder.h"
#include "host/screensaverinterface.h"
#include "testutils.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QMetaMethod>
#include <QPluginLoader>
#include <QPointer>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QVBoxLayout>

#include <memory>

namespace
{
// The smallest screensaver a plug-in could offer: every pure operation, and
// the base's settingWidget.
class MinimalScreenSaver : public AbstractScreenSaver
{
    Q_OBJECT
public:
    using AbstractScreenSaver::AbstractScreenSaver;
    void start() override
    {
    }
    void stop() override
    {
    }
    QString name() override
    {
        return QStringLiteral("Minimal");
    }
    const QString &settingGroupName() override
    {
        return m_group;
    }
    void setProperty(QVariantMap property) override
    {
        m_property = property;
    }
    const QVariantMap &property() const override
    {
        return m_property;
    }
    const QVariantMap &defaultProperty() const override
    {
        return m_property;
    }

private:
    QString m_group = QStringLiteral("Minimal");
    QVariantMap m_property;
};

class MinimalDialog : public AbstractSettingDialog
{
    Q_OBJECT
};

// What the screen shows in the middle of the host's window.
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
        // A screensaver made with the default settings reports the default
        // directory, which is missing on a test machine.
        m_recorder.reset(new TestUtils::LogRecorder);
    }

    void cleanupTestCase()
    {
        m_recorder.reset();
    }

    void findsThePluginByItsFileName()
    {
        const QDir folder(QStringLiteral(ZAV_PLUGIN_DIR));
        QStringList names;
        const QStringList files = folder.entryList(QDir::Files);
        for (const QString &file : files) {
            const QRegularExpressionMatch match = pluginFileNameRegExp.match(file);
            if (match.hasMatch() && match.captured(0) == file) {
                names.append(match.captured(1));
                if (match.captured(1) == QLatin1String("slideshow")) {
                    m_pluginPath = folder.filePath(file);
                }
            }
        }
        QVERIFY2(names.contains(QStringLiteral("slideshow")), qPrintable(files.join(QLatin1Char(' '))));
        QCOMPARE(QFileInfo(m_pluginPath).fileName(), pluginFileNameTemplate.arg(QStringLiteral("slideshow")));
    }

    void metadataNamesTheInterface()
    {
        QVERIFY(!m_pluginPath.isEmpty());
        m_loader.reset(new QPluginLoader(m_pluginPath));
        // As a host that really unloads its plug-ins: by default Qt's
        // plug-in loader would keep the code mapped whatever the plug-in
        // does.
        m_loader->setLoadHints(QLibrary::LoadHints());
        const QJsonObject metaData = m_loader->metaData();
        QCOMPARE(metaData.value(QStringLiteral("IID")).toString(), QStringLiteral(AbstractPluginScreenSaverLoader_iid));
        QCOMPARE(metaData.value(QStringLiteral("className")).toString(), QStringLiteral("PluginSlideShowLoader"));
        QCOMPARE(metaData.value(QStringLiteral("debug")).toBool(), false);
        QVERIFY(!metaData.contains(QStringLiteral("MetaData")));
        QVERIFY(!m_loader->isLoaded());
    }

    // The one place where the cast to the loader interface is checked: on
    // the built plug-in, as a host makes it.
    void rootInstanceCastsThroughTheInterfaceIdentifier()
    {
        QVERIFY(m_loader);
        QObject *root = m_loader->instance();
        QVERIFY2(root, qPrintable(m_loader->errorString()));
        QVERIFY(m_loader->isLoaded());
        QCOMPARE(m_loader->instance(), root);
        QCOMPARE(root->metaObject()->className(), "Dm::ScreenSaver::PluginSlideShowLoader");
        QCOMPARE(root->metaObject()->superClass()->className(), "AbstractPluginScreenSaverLoader");
        // The module has its own copy of the interface's meta-object, so the
        // class-name chain does not lead to this side's copy; the identifier
        // does.
        QCOMPARE(qobject_interface_iid<AbstractPluginScreenSaverLoader *>(), "zav-screensaver/0.0");
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
        QCOMPARE(screenSaver->parentWidget(), &window);
        QCOMPARE(screenSaver->name(), QStringLiteral("Slide show"));
        const QVariantMap defaults = screenSaver->defaultProperty();
        QCOMPARE(screenSaver->property(), defaults);

        const QVariantMap settings{
            {QStringLiteral("ImageDirectory"), m_images.path()},
            {QStringLiteral("AutoSwitch"), 1},
            {QStringLiteral("Effect"), 100},
        };
        // The keys a host leaves out keep their defaults.
        screenSaver->setProperty(settings);
        QVariantMap stored = defaults;
        stored.insert(settings);
        QCOMPARE(screenSaver->property(), stored);

        // Solid images cropped to the screen: every pixel has the image's
        // colour, exactly once a fade is over. The fuzz only allows for
        // rounding in the painter's opacity arithmetic.
        const int fuzz = 2;
        const QColor red(220, 20, 20);
        const QColor green(20, 200, 40);
        QTRY_VERIFY2_WITH_TIMEOUT(TestUtils::fuzzyColor(centrePixel(&window), red, fuzz), qPrintable(QColor(centrePixel(&window)).name()), 10000);

        // Started only once the first slide is on screen, so that a slow
        // first fitting cannot skip it.
        screenSaver->start();
        QTRY_VERIFY2_WITH_TIMEOUT(TestUtils::fuzzyColor(centrePixel(&window), green, fuzz), qPrintable(QColor(centrePixel(&window)).name()), 10000);

        screenSaver->stop();
        QVERIFY(TestUtils::fuzzyColor(centrePixel(&window), green, fuzz));

        delete screenSaver.data();
        QVERIFY(screenSaver.isNull());
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
        // This side's copy of the signal is not the module's: connect by the
        // signature, which both copies share.
        QSignalSpy changed(dialog, SIGNAL(changed()));
        QVERIFY(changed.isValid());
        QVERIFY(QMetaObject::invokeMethod(dialog, "changed"));
        QCOMPARE(changed.count(), 1);
        // The dialog holds the settings in force, so applying it back leaves
        // them as they were: what the host then stores (with the two keys it
        // did not pass, at their defaults).
        QVariantMap stored = settings;
        stored.insert(QStringLiteral("IncludeSubfolders"), false);
        stored.insert(QStringLiteral("Order"), 0);
        QCOMPARE(screenSaver->property(), stored);
        delete screenSaver;
    }

    // The host unloads the plug-in right after destroying a screensaver
    // whose worker is held in a read of a folder that hangs: the worker's
    // thread is not waited for, but the plug-in's code stays loaded while it
    // lives, so the thread ends without a crash once the read returns.
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

    // The shared interface header on its own.
    void baseSettingWidgetIsNull()
    {
        QWidget parent;
        MinimalScreenSaver screenSaver(&parent);
        QCOMPARE(screenSaver.parentWidget(), &parent);
        QCOMPARE(screenSaver.settingWidget(), nullptr);
    }

    void metaObjectsOfTheAbstractClasses()
    {
        QCOMPARE(AbstractScreenSaver::staticMetaObject.className(), "AbstractScreenSaver");
        QCOMPARE(AbstractScreenSaver::staticMetaObject.superClass(), &QWidget::staticMetaObject);
        QCOMPARE(AbstractPluginScreenSaverLoader::staticMetaObject.className(), "AbstractPluginScreenSaverLoader");
        QCOMPARE(AbstractPluginScreenSaverLoader::staticMetaObject.superClass(), &QObject::staticMetaObject);
        QCOMPARE(AbstractSettingDialog::staticMetaObject.className(), "AbstractSettingDialog");
        QCOMPARE(AbstractSettingDialog::staticMetaObject.superClass(), &QDialog::staticMetaObject);

        // No properties, no slots; only the dialog adds a method: its signal.
        for (const QMetaObject *meta : {&AbstractScreenSaver::staticMetaObject, &AbstractPluginScreenSaverLoader::staticMetaObject}) {
            QCOMPARE(meta->methodCount(), meta->methodOffset());
            QCOMPARE(meta->propertyCount(), meta->propertyOffset());
        }
        const QMetaObject &dialog = AbstractSettingDialog::staticMetaObject;
        QCOMPARE(dialog.propertyCount(), dialog.propertyOffset());
        QCOMPARE(dialog.methodCount() - dialog.methodOffset(), 1);
        const QMetaMethod changed = dialog.method(dialog.methodOffset());
        QCOMPARE(changed.methodSignature(), QByteArray("changed()"));
        QCOMPARE(changed.methodType(), QMetaMethod::Signal);
        QCOMPARE(changed.parameterCount(), 0);
        QCOMPARE(dialog.indexOfSignal("changed()"), dialog.methodOffset());
    }

    void dialogCastsAndSignalsByName()
    {
        MinimalDialog dialog;
        QCOMPARE(dialog.qt_metacast("AbstractSettingDialog"), static_cast<void *>(static_cast<AbstractSettingDialog *>(&dialog)));
        QSignalSpy spy(&dialog, SIGNAL(changed()));
        QVERIFY(spy.isValid());
        Q_EMIT dialog.changed();
        QCOMPARE(spy.count(), 1);
    }

    void lockDefaultPropertyHoldsTwoEntries()
    {
        QCOMPARE(lockDefaultProperty.size(), 2);
        QCOMPARE(lockDefaultProperty.value(QStringLiteral("ShowLock")).userType(), int(QMetaType::QString));
        QCOMPARE(lockDefaultProperty.value(QStringLiteral("ShowLock")).toString(), QStringLiteral("datetime"));
        QCOMPARE(lockDefaultProperty.value(QStringLiteral("LockShowTimeout")).userType(), int(QMetaType::Int));
        QCOMPARE(lockDefaultProperty.value(QStringLiteral("LockShowTimeout")).toInt(), 300);
    }

    void pluginFileNamePatterns()
    {
        QCOMPARE(pluginFileNameTemplate, QStringLiteral("libzav-screensaver_%1.so"));
        QCOMPARE(pluginFileNameRegExp.pattern(), QStringLiteral("libzav-screensaver_(.*)\\.so"));
        QCOMPARE(pluginFileNameRegExp.patternOptions(), QRegularExpression::NoPatternOption);
        QVERIFY(pluginFileNameRegExp.isValid());
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
