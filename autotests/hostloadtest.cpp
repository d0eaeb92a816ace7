/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// A host's view of the plug-in: found by its file name, loaded through Qt's
// plug-in loader and driven only through the shared interface header.

#include "fusefolder.h"
#include "host/screensaverinterface.h"
#include "testutils.h"

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QPluginLoader>
#include <QPointer>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QVBoxLayout>

#include <memory>

namespace
{
// What the screen shows in the middle of the host's window.
QRgb centrePixel(QWidget *window)
{
    const QImage image = window->grab().toImage().convertToFormat(QImage::Format_ARGB32);
    return image.pixel(image.width() / 2, image.height() / 2);
}

QString describe(QRgb pixel)
{
    return QStringLiteral("rgba(%1, %2, %3, %4)").arg(qRed(pixel)).arg(qGreen(pixel)).arg(qBlue(pixel)).arg(qAlpha(pixel));
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

    void rootInstanceCastsThroughTheInterfaceIdentifier()
    {
        QVERIFY(m_loader);
        QObject *root = m_loader->instance();
        QVERIFY2(root, qPrintable(m_loader->errorString()));
        QVERIFY(m_loader->isLoaded());
        QCOMPARE(root->metaObject()->className(), "Dm::ScreenSaver::PluginSlideShowLoader");
        // The module has its own copy of the interface's meta-object, so the
        // class-name chain does not lead to this side's copy; the identifier
        // does.
        QVERIFY(!root->metaObject()->inherits(&AbstractPluginScreenSaverLoader::staticMetaObject));
        auto *factory = qobject_cast<AbstractPluginScreenSaverLoader *>(root);
        QVERIFY(factory);
        QCOMPARE(m_loader->instance(), root);
    }

    void screenSaverShowsTheSlidesAndSwitches()
    {
        QVERIFY(m_loader);
        auto *factory = qobject_cast<AbstractPluginScreenSaverLoader *>(m_loader->instance());
        QVERIFY(factory);

        QWidget window;
        auto *layout = new QVBoxLayout(&window);
        layout->setContentsMargins(0, 0, 0, 0);
        QPointer<AbstractScreenSaver> screenSaver = factory->createScreenSaver(&window);
        QVERIFY(screenSaver);
        QCOMPARE(screenSaver->parentWidget(), &window);
        layout->addWidget(screenSaver);
        window.resize(320, 240);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));

        QCOMPARE(screenSaver->name(), QStringLiteral("Slide show"));
        QCOMPARE(screenSaver->settingGroupName(), QStringLiteral("SlideShow"));
        const QVariantMap defaults = screenSaver->defaultProperty();
        // Six keys: the subfolders and the order came after the first four.
        QCOMPARE(defaults.keys(),
                 (QStringList{QStringLiteral("AutoSwitch"),
                              QStringLiteral("Effect"),
                              QStringLiteral("ImageDirectory"),
                              QStringLiteral("IncludeSubfolders"),
                              QStringLiteral("Order"),
                              QStringLiteral("Position")}));
        QCOMPARE(screenSaver->property(), defaults);

        const QVariantMap settings{
            {QStringLiteral("ImageDirectory"), m_images.path()},
            {QStringLiteral("AutoSwitch"), 1},
            {QStringLiteral("Effect"), 100},
        };
        // A host that knows only the first four keys: the others keep their
        // defaults, and the show is the one those four always gave.
        screenSaver->setProperty(settings);
        QVariantMap stored = defaults;
        for (auto it = settings.cbegin(); it != settings.cend(); ++it) {
            stored.insert(it.key(), it.value());
        }
        QCOMPARE(screenSaver->property(), stored);

        // Solid images cropped to the screen: every pixel has the image's
        // colour, exactly once a fade is over. The fuzz only allows for
        // rounding in the painter's opacity arithmetic.
        const int fuzz = 2;
        const QColor red(220, 20, 20);
        const QColor green(20, 200, 40);
        QTRY_VERIFY2_WITH_TIMEOUT(TestUtils::fuzzyColor(centrePixel(&window), red, fuzz), qPrintable(describe(centrePixel(&window))), 10000);

        // Started only once the first slide is on screen, so that a slow
        // first fitting cannot skip it.
        screenSaver->start();
        QTRY_VERIFY2_WITH_TIMEOUT(TestUtils::fuzzyColor(centrePixel(&window), green, fuzz), qPrintable(describe(centrePixel(&window))), 10000);

        screenSaver->stop();
        const QRgb stopped = centrePixel(&window);
        QVERIFY(TestUtils::fuzzyColor(stopped, green, fuzz));

        delete screenSaver.data();
        QVERIFY(screenSaver.isNull());
        QVERIFY(window.children().size() == 1); // the layout only
    }

    void settingsDialogIsReachedBySignature()
    {
        QVERIFY(m_loader);
        auto *factory = qobject_cast<AbstractPluginScreenSaverLoader *>(m_loader->instance());
        QVERIFY(factory);
        QWidget window;
        AbstractScreenSaver *screenSaver = factory->createScreenSaver(&window);
        QVERIFY(screenSaver);
        const QVariantMap settings{
            {QStringLiteral("ImageDirectory"), m_images.path()},
            {QStringLiteral("AutoSwitch"), 3},
            {QStringLiteral("Effect"), 700},
            {QStringLiteral("Position"), 2},
        };
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
        QVERIFY(root);
        auto *factory = qobject_cast<AbstractPluginScreenSaverLoader *>(root.data());
        QVERIFY(factory);
        auto window = std::make_unique<QWidget>();
        auto *layout = new QVBoxLayout(window.get());
        AbstractScreenSaver *screenSaver = factory->createScreenSaver(window.get());
        layout->addWidget(screenSaver);
        window->resize(320, 240);
        window->show();
        QVERIFY(QTest::qWaitForWindowExposed(window.get()));
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
};

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    HostLoadTest test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "hostloadtest.moc"
