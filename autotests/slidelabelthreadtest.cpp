/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// The cache thread of SlideLabel: started by the constructor with the worker
// moved into it; on destruction asked to quit and never waited for (the GUI
// thread takes the user's password): the thread ends on its own, the worker
// is deleted in it, and the thread object after it.

#include "slidelabeltesthelpers.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QMetaMethod>
#include <QPointer>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <atomic>
#include <memory>
#include <mutex>

using namespace Dm::ScreenSaver;
using namespace SlideLabelTest;
using TestUtils::debugEntry;
using TestUtils::LogRecorder;
using TestUtils::logText;

namespace
{
const QString started = logText(LogText::threadStarted);

// Records the thread in which a watched object is destroyed. Connected by
// name rather than through a slot object: the connection is made here while
// the object's thread already runs, and used there, ordered only by the
// toolkit's own locks, which the thread sanitizer cannot see; a slot object
// written here and read there would look like a race to it.
class DestructionWitness : public QObject
{
    Q_OBJECT
public:
    void watch(QObject *object)
    {
        connect(object, SIGNAL(destroyed()), this, SLOT(record()), Qt::DirectConnection);
    }

    std::atomic<QThread *> thread{nullptr};
    std::atomic<bool> done{false};

private Q_SLOTS:
    void record()
    {
        thread = QThread::currentThread();
        done = true;
    }
};

// Tags the messages with the thread that logged them, then hands them on
// to the previous handler. Declare it before the labels it watches, so that
// their threads have ended when it goes. Its lock is a std::mutex, which the
// thread sanitizer sees also when contended.
class ThreadTagger
{
public:
    ThreadTagger()
    {
        std::lock_guard<std::mutex> locker(s_mutex);
        s_items.clear();
        s_previous = qInstallMessageHandler(&ThreadTagger::handler);
    }
    ~ThreadTagger()
    {
        std::lock_guard<std::mutex> locker(s_mutex);
        qInstallMessageHandler(s_previous);
    }
    // The threads of the messages that begin with one of the texts.
    QList<QThread *> threadsOf(std::initializer_list<const char *> leading) const
    {
        std::lock_guard<std::mutex> locker(s_mutex);
        QList<QThread *> result;
        for (const auto &item : qAsConst(s_items)) {
            if (std::any_of(leading.begin(), leading.end(), [&item](const char *text) {
                    return item.first.startsWith(QLatin1String(text));
                })) {
                result.append(item.second);
            }
        }
        return result;
    }

private:
    static void handler(QtMsgType type, const QMessageLogContext &context, const QString &message)
    {
        QtMessageHandler previous = nullptr;
        {
            std::lock_guard<std::mutex> locker(s_mutex);
            s_items.append(qMakePair(message, QThread::currentThread()));
            previous = s_previous;
        }
        if (previous) {
            previous(type, context, message);
        }
    }

    static inline std::mutex s_mutex;
    static inline QList<QPair<QString, QThread *>> s_items;
    static inline QtMessageHandler s_previous = nullptr;
};
}

class SlideLabelThreadTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        TestUtils::setSlideShowDebugEnabled(true);
    }

    void constructionStartsTheCacheThread()
    {
        LogRecorder log;
        LabelPointer label(new SlideLabel);
        COMPARE_LOG(log, {debugEntry(started)});

        ImageCacheWorker *worker = inspect(label).worker();
        QVERIFY(worker);
        QVERIFY(!worker->parent());
        QThread *thread = worker->thread();
        QVERIFY(thread);
        QVERIFY(thread != QThread::currentThread());
        QVERIFY(thread->isRunning());
        // A plain event loop, below every other thread of the host: its
        // decoding must not take the processor from the GUI thread.
        QCOMPARE(thread->metaObject()->className(), "QThread");
        QCOMPARE(thread->priority(), QThread::IdlePriority);
        QVERIFY(!thread->parent());
        // The label itself stays in the GUI thread.
        QCOMPARE(label->thread(), QThread::currentThread());
        // Running before any directory is set.
        QVERIFY(inspect(label).files().isEmpty());
    }

    // The worker's two answers: a report, which carries the generation of
    // its request so that one made before a clearing is known, and a file
    // that has gone; and the signal the screensaver waits for before a fade.
    void metaObjectHasTheWorkersSlotsAndTheReadySignal()
    {
        SlideLabel label;
        const QMetaObject *meta = label.metaObject();
        QCOMPARE(meta->className(), "Dm::ScreenSaver::SlideLabel");
        QCOMPARE(meta->superClass(), &QLabel::staticMetaObject);
        QCOMPARE(meta->methodCount() - meta->methodOffset(), 3);
        const QMetaMethod ready = meta->method(meta->methodOffset());
        QCOMPARE(ready.methodSignature(), QByteArray("currentSlideReady()"));
        QCOMPARE(ready.methodType(), QMetaMethod::Signal);
        const QMetaMethod slot = meta->method(meta->methodOffset() + 1);
        QCOMPARE(slot.methodSignature(), QByteArray("handleImageCached(QString,QPixmap,qulonglong)"));
        QCOMPARE(slot.methodType(), QMetaMethod::Slot);
        QCOMPARE(slot.access(), QMetaMethod::Private);
        QCOMPARE(slot.parameterNames(), QList<QByteArray>({QByteArray("path"), QByteArray("pixmap"), QByteArray("generation")}));
        const QMetaMethod gone = meta->method(meta->methodOffset() + 2);
        QCOMPARE(gone.methodSignature(), QByteArray("handleImageGone(QString)"));
        QCOMPARE(gone.access(), QMetaMethod::Private);
        QCOMPARE(meta->propertyCount(), meta->propertyOffset());
        QVERIFY(qobject_cast<SlideLabel *>(static_cast<QWidget *>(&label)));
        QVERIFY(label.inherits("Dm::ScreenSaver::SlideLabel"));
    }

    void destroyedQuitsTheThreadWithoutWaiting_data()
    {
        QTest::addColumn<bool>("held");
        QTest::newRow("at once") << false;
        // As by a read of a network share that went away.
        QTest::newRow("while the worker is held") << true;
    }

    // The label's destruction returns at once, also while the worker is
    // held in its thread; the thread ends on its own once the worker is
    // free: the worker is deleted in it, and the thread object after it.
    void destroyedQuitsTheThreadWithoutWaiting()
    {
        QFETCH(bool, held);
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        TestUtils::writeSolidImage(dir.path(), QStringLiteral("a.png"), QSize(16, 16), Qt::red);

        LogRecorder log;
        // Made before the label starts its thread, so that its members
        // are there before that thread exists.
        DestructionWitness witness;
        auto *label = new SlideLabel;
        label->resize(240, 180);
        QPointer<ImageCacheWorker> worker = inspect(label).worker();
        QThread *const workerThread = worker->thread();
        QPointer<QThread> thread = workerThread;
        witness.watch(worker.data());

        std::unique_ptr<TestUtils::ThreadBlocker> blocker;
        if (held) {
            blocker = std::make_unique<TestUtils::ThreadBlocker>(worker.data());
            QVERIFY(blocker->waitUntilHolding());
            // A request waits behind the held worker.
            QVERIFY(setDirAndWait(*label, dir.path()));
        }

        QElapsedTimer timer;
        timer.start();
        delete label;
        const qint64 elapsed = timer.elapsed();

        // The old design waited up to 5000 ms here; a bound this wide only
        // catches waiting.
        QVERIFY2(elapsed < 1000, qPrintable(QStringLiteral("returned after %1 ms").arg(elapsed)));
        QVERIFY(log.texts(QtWarningMsg).isEmpty());
        if (held) {
            QVERIFY(!thread.isNull());
            QVERIFY(thread->isRunning());
            QVERIFY(!witness.done.load());
            blocker->release();
        } else {
            COMPARE_LOG(log, {debugEntry(started)});
        }
        QTRY_VERIFY_WITH_TIMEOUT(witness.done.load(), 10000);
        QTRY_VERIFY(worker.isNull());
        // Deleted by its own thread as that thread finished, not by the GUI
        // thread.
        QCOMPARE(witness.thread.load(), workerThread);
        QVERIFY(witness.thread.load() != QThread::currentThread());
        QTRY_VERIFY_WITH_TIMEOUT(thread.isNull(), 10000);
        QVERIFY(log.texts(QtWarningMsg).isEmpty());
    }

    void destroyedWithRequestsInFlightQuitsTheThread_data()
    {
        QTest::addColumn<int>("steps");
        QTest::newRow("right after setDir") << 0;
        QTest::newRow("after two steps") << 2;
    }

    void destroyedWithRequestsInFlightQuitsTheThread()
    {
        QFETCH(int, steps);
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        for (int i = 0; i < 6; ++i) {
            TestUtils::writeSolidImage(dir.path(), QStringLiteral("%1.png").arg(i), QSize(200, 150), QColor(i * 40, 0, 0));
        }

        // Several rounds: where the thread stands when it is told to quit
        // (preparing an image, between two, with requests still queued)
        // differs from one to the next. Without a recorder and without
        // debug lines: a recorder's lock, taken by both threads, would order
        // them as the label alone does not.
        TestUtils::setSlideShowDebugEnabled(false);
        const auto debugAgain = qScopeGuard([] {
            TestUtils::setSlideShowDebugEnabled(true);
        });
        for (int round = 0; round < 8; ++round) {
            // Made before the label starts its thread, so that its members
            // are there before that thread exists.
            DestructionWitness witness;
            auto *label = new SlideLabel;
            label->resize(240, 180);
            QVERIFY(setDirAndWait(*label, dir.path()));
            for (int i = 0; i < steps; ++i) {
                label->setNext();
            }
            QPointer<ImageCacheWorker> worker = inspect(label).worker();
            witness.watch(worker.data());
            QThread *const workerThread = worker->thread();

            delete label;
            QTRY_VERIFY(witness.done.load());
            QCOMPARE(witness.thread.load(), workerThread);
            // Reports that were still queued for the label go with it.
            QCoreApplication::sendPostedEvents();
            QCoreApplication::processEvents();
        }
    }

    void cacheReportsAreHandledInTheGuiThread()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        TestUtils::writeSolidImage(dir.path(), QStringLiteral("a.png"), QSize(16, 16), Qt::red);
        TestUtils::writeSolidImage(dir.path(), QStringLiteral("b.png"), QSize(16, 16), Qt::blue);
        TestUtils::writeSolidImage(dir.path(), QStringLiteral("c.png"), QSize(16, 16), Qt::green);

        LogRecorder log;
        ThreadTagger tagger;
        LabelPointer label(new SlideLabel);
        label->resize(240, 180);
        QThread *const workerThread = inspect(label).worker()->thread();
        QVERIFY(setDirAndWait(*label, dir.path()));
        // The current image and the look-ahead both reported.
        QTRY_COMPARE(tagger.threadsOf({LogText::cachedShown, LogText::cachedNotShown}).size(), 2);

        // Prepared in the worker's thread ...
        const QList<QThread *> processing = tagger.threadsOf({LogText::internalProcessing});
        QCOMPARE(processing.size(), 2);
        for (QThread *thread : processing) {
            QCOMPARE(thread, workerThread);
        }
        // ... and handled by the label in its own.
        for (QThread *thread : tagger.threadsOf({"SlideLabel: "})) {
            QCOMPARE(thread, QThread::currentThread());
        }

        // A report of an image that is already prepared comes at once, in
        // the GUI thread, within the request: setNext asks for a, cached.
        label->setNext();
        label->setNext();
        QVERIFY(waitUntilIdle(inspect(label).worker()));
        log.clear();
        const int before = tagger.threadsOf({LogText::cachedShown, LogText::cachedNotShown}).size();
        label->setNext();
        // a is current again and c the previous: the look-ahead b is asked
        // for, and it is cached.
        QCOMPARE(tagger.threadsOf({LogText::cachedShown, LogText::cachedNotShown}).size(), before + 1);
        const QString b = QDir(dir.path()).filePath(QStringLiteral("b.png"));
        QCOMPARE(guiFlow(log), QStringList({logText(LogText::alreadyCached, b), logText(LogText::cachedNotShown, b)}));
    }
};

int main(int argc, char **argv)
{
    return TestUtils::runWidgetTest<SlideLabelThreadTest>(argc, argv);
}

#include "slidelabelthreadtest.moc"
