/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// Bad inputs, each run in a child process by the robustness harness, a host
// like a lock screen that loads the built plug-in, shows it, lets slides
// switch, resizes it and destroys it. For every kind of input the child must
// exit normally within childTimeoutMs, its peak memory must stay under the
// kind's bound, and the plug-in must log what it is meant to say for that input
// and nothing else at warning level or above.
//
// By default a reduced corpus runs; ZAV_ROBUSTNESS_FULL=1 adds the slow kinds
// (a directory of 10,000 images, an image just under the pixel limit, a 1 x 1
// image tiled over a full-HD window, and the thin images that show the crop
// defect below). Kinds that show a known defect are expected to fail
// (QEXPECT_FAIL) and turn into a failure (XPASS) once it is mended. The
// figures of every row are printed, and again as a table at the end.

#include "testutils.h"

#include <QBuffer>
#include <QDebug>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QImage>
#include <QImageReader>
#include <QImageWriter>
#include <QPainter>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <functional>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
// How long one child may take before it counts as hung. A normal run takes
// well under a second, a sanitizer run a few; only the full-run kinds take
// longer.
const int childTimeoutMs = 90000;

// Peak resident memory (VmHWM) allowed for a child, in MiB, unless a kind
// states its own. A run of small images peaks at about 30 MiB (40 MiB at
// ratio 2); the sanitizers' shadow memory and quarantine double that and
// more.
#if defined(__SANITIZE_ADDRESS__)
const qint64 defaultBoundMiB = 768;
const qint64 sanitizerExtraMiB = 512;
#else
const qint64 defaultBoundMiB = 256;
const qint64 sanitizerExtraMiB = 0;
#endif

const QString defaultDirectory = QStringLiteral("/usr/share/wallpapers/slideshow/");

// A message the plug-in streams as one QString value is printed quoted.
using TestUtils::loadWarning;
const auto debugQuoted = TestUtils::quoted;

QString directoryCritical(const QString &dir)
{
    return debugQuoted(QStringLiteral("SlideLabel: The specified directory (%0) does not exist or does not contain image files.").arg(dir));
}

QString unknownPositionWarning(const QString &path)
{
    return QStringLiteral("ImageCacheWorker: Unknown positioning mode, return to stretching for the path: ") + debugQuoted(path);
}

QImage gradient(const QSize &size)
{
    QImage image(size, QImage::Format_RGB32);
    for (int y = 0; y < size.height(); ++y) {
        for (int x = 0; x < size.width(); ++x) {
            image.setPixel(x, y, qRgb((x * 255) / qMax(1, size.width() - 1), (y * 255) / qMax(1, size.height() - 1), 128));
        }
    }
    return image;
}

QByteArray encoded(const QImage &image, const char *format)
{
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    QImageWriter writer(&buffer, format);
    if (!writer.write(image)) {
        qWarning() << "cannot encode" << format << writer.errorString();
    }
    return bytes;
}

bool writeBytes(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

// The bytes with every one in [from, to) inverted.
QByteArray inverted(QByteArray bytes, int from, int to)
{
    for (int i = qMax(0, from); i < qMin(to, bytes.size()); ++i) {
        bytes[i] = char(~bytes.at(i));
    }
    return bytes;
}

QString unescaped(const QString &text)
{
    QString result;
    result.reserve(text.size());
    for (int i = 0; i < text.size(); ++i) {
        if (text.at(i) == QLatin1Char('\\') && i + 1 < text.size()) {
            const QChar next = text.at(++i);
            result += next == QLatin1Char('n') ? QLatin1Char('\n') : next == QLatin1Char('r') ? QLatin1Char('\r') : next;
        } else {
            result += text.at(i);
        }
    }
    return result;
}

// What one kind of input needs and what its run must show.
struct Run {
    QString dir; // the temporary folder of the row
    QStringList settings; // --set arguments of the harness
    QString scaleFactor; // QT_SCALE_FACTOR of the child, empty for none
    QStringList harnessArguments; // further arguments
    // Exact texts of the warning and critical lines the plug-in must log;
    // each must be seen at least once and no other may be.
    QStringList expected;
    int minSwitches = 3;
    int maxSwitches = -1;
    qint64 boundMiB = defaultBoundMiB;
    int timeoutMs = childTimeoutMs;
    QString note; // said with the row's figures
    QString skipAfterChecks; // a row whose main point this machine cannot show
};

using Builder = std::function<bool(Run &)>;

struct Kind {
    QByteArray name;
    bool fullOnly;
    Builder build;
    // A defect of the plug-in that this kind shows: the run is expected not
    // to be healthy until it is mended.
    const char *knownDefect = nullptr;
};

QString imageDirSetting(const QString &dir)
{
    return QStringLiteral("ImageDirectory=string:") + dir;
}

// A directory with one good image beside the bad one, so that the show
// switches between them and the bad one is requested, painted and faded.
bool withGoodImage(Run &run)
{
    run.settings << imageDirSetting(run.dir);
    return gradient(QSize(64, 48)).save(QDir(run.dir).filePath(QStringLiteral("good.png")));
}

Builder badFile(const QString &name, const QByteArray &bytes, bool decodes)
{
    return [name, bytes, decodes](Run &run) {
        const QString path = QDir(run.dir).filePath(name);
        if (!withGoodImage(run) || !writeBytes(path, bytes)) {
            return false;
        }
        if (!decodes) {
            run.expected << loadWarning(path);
        }
        return true;
    };
}

Builder oddSize(const QSize &size, int position, int ratio)
{
    return [size, position, ratio](Run &run) {
        const QString path = QDir(run.dir).filePath(QStringLiteral("odd.png"));
        if (!withGoodImage(run) || !gradient(size).save(path)) {
            return false;
        }
        run.settings << QStringLiteral("Position=int:%1").arg(position);
        if (ratio != 1) {
            run.scaleFactor = QString::number(ratio);
        }
        return true;
    };
}

Builder setting(const QString &argument, std::function<void(Run &)> expect)
{
    return [argument, expect](Run &run) {
        if (!withGoodImage(run)) {
            return false;
        }
        run.settings << argument;
        expect(run);
        return true;
    };
}

Builder directorySetting(const QString &argument, const QString &shownAs)
{
    return [argument, shownAs](Run &run) {
        run.settings << argument;
        run.expected << directoryCritical(shownAs);
        run.minSwitches = 0;
        run.harnessArguments << QStringLiteral("--wait-ms") << QStringLiteral("400");
        return true;
    };
}

Builder manyImages(int count)
{
    return [count](Run &run) {
        run.settings << imageDirSetting(run.dir);
        const QByteArray png = encoded(gradient(QSize(16, 12)), "png");
        for (int i = 0; i < count; ++i) {
            if (!writeBytes(QDir(run.dir).filePath(QStringLiteral("img-%1.png").arg(i, 5, 10, QLatin1Char('0'))), png)) {
                return false;
            }
        }
        return true;
    };
}

void add(QList<Kind> &list, const char *name, const Builder &build, bool fullOnly = false, const char *knownDefect = nullptr)
{
    list << Kind{name, fullOnly, build, knownDefect};
}

// Width and height of a BMP set to 0x7fffffff.
QByteArray hugeBmpHeader(QByteArray bytes)
{
    for (int i = 18; i < 26; ++i) {
        bytes[i] = char(i == 21 || i == 25 ? 0x7f : 0xff);
    }
    return bytes;
}

// The first entry of an XPM's colour table replaced by garbage.
QByteArray garbageXpmColours(const QByteArray &xpm)
{
    const int table = xpm.indexOf("\",\n\"") + 4;
    return xpm.left(table) + QByteArray("\x01\x02 q #zzzzzz\",\n\"") + xpm.mid(table + 20);
}

QByteArray pseudoRandomBytes(int size)
{
    QByteArray bytes(size, 0);
    quint32 state = 12345;
    for (char &c : bytes) {
        state = state * 1103515245u + 12345u;
        c = char(state >> 24);
    }
    return bytes;
}

QList<Kind> kinds()
{
    const QImage small = gradient(QSize(64, 48));
    const QByteArray jpg = encoded(small, "jpg");
    const QByteArray png = encoded(small, "png");
    const QByteArray bmp = encoded(small, "bmp");
    const QByteArray xpm = encoded(small, "xpm");
    const QByteArray pbm = encoded(small.convertToFormat(QImage::Format_Mono), "pbm");

    QList<Kind> list;
    // Empty files.
    add(list, "zero-byte-jpg", badFile(QStringLiteral("empty.jpg"), QByteArray(), false));
    add(list, "zero-byte-png", badFile(QStringLiteral("empty.png"), QByteArray(), false));
    add(list, "zero-byte-bmp", badFile(QStringLiteral("empty.bmp"), QByteArray(), false));
    add(list, "zero-byte-xpm", badFile(QStringLiteral("empty.xpm"), QByteArray(), false));
    add(list, "zero-byte-pbm", badFile(QStringLiteral("empty.pbm"), QByteArray(), false));
    // Cut in half. The BMP reader shows what there is (the rest black); the
    // others fail.
    add(list, "truncated-jpg", badFile(QStringLiteral("half.jpg"), jpg.left(jpg.size() / 2), false));
    add(list, "truncated-png", badFile(QStringLiteral("half.png"), png.left(png.size() / 2), false));
    add(list, "truncated-png-signature-only", badFile(QStringLiteral("sig.png"), png.left(8), false));
    add(list, "truncated-bmp", badFile(QStringLiteral("half.bmp"), bmp.left(bmp.size() / 2), true));
    add(list, "truncated-xpm", badFile(QStringLiteral("half.xpm"), xpm.left(xpm.size() / 2), false));
    add(list, "truncated-pbm", badFile(QStringLiteral("half.pbm"), pbm.left(pbm.size() / 2), false));
    // Damaged inside. A JPEG with inverted entropy-coded data still decodes
    // (libjpeg resynchronises), and a BMP with inverted pixels; a PNG whose
    // data fails its checksum does not.
    add(list, "corrupted-jpg-data", badFile(QStringLiteral("bits.jpg"), inverted(jpg, jpg.size() / 2, jpg.size() / 2 + 64), true));
    add(list, "corrupted-jpg-header", badFile(QStringLiteral("head.jpg"), inverted(jpg, 2, 40), false));
    add(list, "corrupted-png-data", badFile(QStringLiteral("bits.png"), inverted(png, png.size() / 2, png.size() / 2 + 64), false));
    add(list, "corrupted-png-header", badFile(QStringLiteral("head.png"), inverted(png, 12, 29), false));
    add(list, "corrupted-bmp-header", badFile(QStringLiteral("head.bmp"), hugeBmpHeader(bmp), false));
    add(list, "corrupted-bmp-data", badFile(QStringLiteral("bits.bmp"), inverted(bmp, 60, bmp.size()), true));
    add(list, "corrupted-xpm-colours", badFile(QStringLiteral("colours.xpm"), garbageXpmColours(xpm), false));
    add(list, "corrupted-pbm-huge-header", badFile(QStringLiteral("huge.pbm"), QByteArray("P4\n99999 99999\n") + QByteArray(64, '\xaa'), false));
    add(list, "corrupted-ppm-short-data", badFile(QStringLiteral("short.ppm"), QByteArray("P6\n640 480\n255\n") + QByteArray(1000, '\x40'), false));
    // Names that lie about the content.
    add(list, "png-named-jpg", badFile(QStringLiteral("really-png.jpg"), png, true));
    add(list, "jpg-named-bmp", badFile(QStringLiteral("really-jpg.bmp"), jpg, true));
    add(list, "text-named-jpg", badFile(QStringLiteral("notes.jpg"), QByteArray("These are not the pixels you are looking for.\n"), false));
    add(list, "random-bytes-png", badFile(QStringLiteral("noise.png"), pseudoRandomBytes(4096), false));

    // Extreme shapes in every fitting mode at ratios 1 and 2.
    const char *const modes[] = {"stretch", "crop", "tile", "center"};
    const QList<QSize> shapes = {QSize(1, 1), QSize(1, 10000), QSize(10000, 1)};
    for (const QSize &shape : shapes) {
        for (int position = 0; position < 4; ++position) {
            for (int ratio : {1, 2}) {
                const QString name =
                    QStringLiteral("image-%1x%2-%3-ratio%4").arg(shape.width()).arg(shape.height()).arg(QLatin1String(modes[position])).arg(ratio);
                // Crop cuts a thin image's visible part out before scaling
                // it, so none of these builds a huge intermediate.
                list << Kind{name.toLatin1(), false, oddSize(shape, position, ratio), nullptr};
            }
        }
    }

    // Formats at their limits.
    add(list, "mono-png-declaring-12000x12000", [](Run &run) {
        QImage image(12000, 12000, QImage::Format_Mono);
        image.fill(1);
        const QString path = QDir(run.dir).filePath(QStringLiteral("wide.png"));
        // More pixels than the worker decodes: a black slide.
        run.expected << loadWarning(path);
        return withGoodImage(run) && image.save(path);
    });
    add(list, "png-with-alpha", [](Run &run) {
        QImage image(200, 150, QImage::Format_ARGB32);
        image.fill(Qt::transparent);
        QPainter painter(&image);
        painter.fillRect(QRect(20, 20, 100, 80), QColor(255, 0, 0, 128));
        painter.end();
        return withGoodImage(run) && image.save(QDir(run.dir).filePath(QStringLiteral("alpha.png")));
    });
    add(list, "png-16-bit-channels", [](Run &run) {
        const QImage image = gradient(QSize(200, 150)).convertToFormat(QImage::Format_RGBA64);
        return withGoodImage(run) && image.save(QDir(run.dir).filePath(QStringLiteral("deep.png")));
    });

    // Things in the directory that are not plain files. The scan lists
    // regular files and links to regular files only, so the pipe, the links
    // to a device, to a pipe and to nothing, the loop and the folder are
    // never opened.
    add(list, "named-pipe", [](Run &run) {
        return withGoodImage(run) && ::mkfifo(QFile::encodeName(QDir(run.dir).filePath(QStringLiteral("pipe.png"))).constData(), 0644) == 0;
    });
    add(list, "symlink-to-dev-zero", [](Run &run) {
        const QString path = QDir(run.dir).filePath(QStringLiteral("zero.png"));
        return withGoodImage(run) && QFile::link(QStringLiteral("/dev/zero"), path);
    });
    add(list, "symlink-to-named-pipe", [](Run &run) {
        const QString pipe = QDir(run.dir).filePath(QStringLiteral(".pipe"));
        // A healthy run of two small images ends within a second or two; a
        // worker waiting in open() for a writer would hang the host, so the
        // run is cut short well before the usual bound.
        run.timeoutMs = 15000;
        return withGoodImage(run) && ::mkfifo(QFile::encodeName(pipe).constData(), 0644) == 0
            && QFile::link(pipe, QDir(run.dir).filePath(QStringLiteral("pipe.png")));
    });
    add(list, "dangling-symlink", [](Run &run) {
        return withGoodImage(run) && QFile::link(QDir(run.dir).filePath(QStringLiteral("gone.png")), QDir(run.dir).filePath(QStringLiteral("dangling.png")));
    });
    add(list, "symlink-loop", [](Run &run) {
        return withGoodImage(run) && ::symlink("loop.png", QFile::encodeName(QDir(run.dir).filePath(QStringLiteral("loop.png"))).constData()) == 0;
    });
    add(list, "symlink-to-good-image", [](Run &run) {
        return withGoodImage(run) && QFile::link(QDir(run.dir).filePath(QStringLiteral("good.png")), QDir(run.dir).filePath(QStringLiteral("link.png")));
    });
    add(list, "subdirectory-named-like-an-image", [](Run &run) {
        return withGoodImage(run) && QDir(run.dir).mkdir(QStringLiteral("folder.png"));
    });
    add(list, "unreadable-file", [](Run &run) {
        const QString path = QDir(run.dir).filePath(QStringLiteral("secret.png"));
        if (!withGoodImage(run) || !gradient(QSize(64, 48)).save(path) || !QFile::setPermissions(path, QFileDevice::Permissions())) {
            return false;
        }
        QFile probe(path);
        if (probe.open(QIODevice::ReadOnly)) {
            // As root the mode does not stop reads: the image is shown like
            // any other.
            run.note = QStringLiteral("mode 000 did not stop reading (running as root)");
            run.skipAfterChecks = QStringLiteral(
                "Running as root: mode 000 does not stop reads, so the load warning of an unreadable file "
                "cannot be provoked here; the run was checked as one of a readable image.");
        } else {
            run.expected << loadWarning(path);
        }
        return true;
    });

    // Names.
    add(list, "name-with-spaces", badFile(QStringLiteral("my holiday  photo .png"), png, true));
    add(list, "name-with-newline", badFile(QStringLiteral("line\nbreak.png"), png, true));
    add(list, "name-with-leading-dashes", [png](Run &run) {
        return withGoodImage(run) && writeBytes(QDir(run.dir).filePath(QStringLiteral("-rf.png")), png)
            && writeBytes(QDir(run.dir).filePath(QStringLiteral("--help.png")), png);
    });
    add(list, "name-not-utf8", [png](Run &run) {
        if (!withGoodImage(run)) {
            return false;
        }
        const QByteArray raw = QFile::encodeName(run.dir) + "/bad-\xff\xfe-name.png";
        const int fd = ::open(raw.constData(), O_WRONLY | O_CREAT | O_EXCL, 0644);
        if (fd < 0 || ::write(fd, png.constData(), size_t(png.size())) != png.size() || ::close(fd) != 0) {
            return false;
        }
        // Qt's directory listing leaves out a name that does not decode back
        // to the same bytes: the file is not shown and nothing is logged.
        if (QFile::encodeName(QFile::decodeName(raw)) == raw) {
            run.note = QStringLiteral("the name decodes in this locale and is shown");
        }
        return true;
    });
    add(list, "many-images-500", manyImages(500));
    add(list, "many-images-10000", manyImages(10000), true);

    // Settings, each key at 0, negative, huge and not a number.
    auto nothing = [](Run &) {};
    auto noSwitch = [](Run &run) {
        run.minSwitches = 0;
        run.maxSwitches = 0;
        run.harnessArguments << QStringLiteral("--wait-ms") << QStringLiteral("600");
    };
    add(list, "autoswitch-zero", setting(QStringLiteral("AutoSwitch=int:0"), nothing));
    add(list, "autoswitch-negative", setting(QStringLiteral("AutoSwitch=int:-1"), noSwitch));
    add(list, "autoswitch-huge", setting(QStringLiteral("AutoSwitch=int:2147483647"), noSwitch));
    // toInt() keeps the low 32 bits, 1215752191 s, which the interval caps at
    // the largest int of milliseconds.
    add(list, "autoswitch-huge-longlong", setting(QStringLiteral("AutoSwitch=longlong:99999999999"), noSwitch));
    add(list, "autoswitch-not-a-number", setting(QStringLiteral("AutoSwitch=string:soon"), nothing));
    add(list, "effect-zero", setting(QStringLiteral("Effect=int:0"), nothing));
    add(list, "effect-negative", setting(QStringLiteral("Effect=int:-1"), [](Run &run) {
            // Qt refuses the duration and keeps the default 500 ms.
            run.minSwitches = 2;
        }));
    add(list, "effect-huge", setting(QStringLiteral("Effect=int:2147483647"), [](Run &run) {
            // The first fade never ends within the run.
            run.minSwitches = 1;
            run.maxSwitches = 1;
            run.harnessArguments << QStringLiteral("--wait-ms") << QStringLiteral("600");
        }));
    add(list, "effect-not-a-number", setting(QStringLiteral("Effect=string:slow"), nothing));
    auto unknownPosition = [](Run &run) {
        run.expected << unknownPositionWarning(QDir(run.dir).filePath(QStringLiteral("good.png")));
    };
    add(list, "position-zero", setting(QStringLiteral("Position=int:0"), nothing));
    add(list, "position-negative", setting(QStringLiteral("Position=int:-1"), unknownPosition));
    add(list, "position-huge", setting(QStringLiteral("Position=int:2147483647"), unknownPosition));
    // Four is Fit, the fifth mode; five is the first unknown one.
    add(list, "position-four-fit", setting(QStringLiteral("Position=int:4"), nothing));
    add(list, "position-five", setting(QStringLiteral("Position=int:5"), unknownPosition));
    add(list, "position-not-a-number", setting(QStringLiteral("Position=string:middle"), nothing));
    add(list, "directory-zero", directorySetting(QStringLiteral("ImageDirectory=int:0"), QStringLiteral("0")));
    add(list, "directory-negative", directorySetting(QStringLiteral("ImageDirectory=int:-1"), QStringLiteral("-1")));
    add(list, "directory-not-a-string", directorySetting(QStringLiteral("ImageDirectory=double:3.25"), QStringLiteral("3.25")));
    add(list, "directory-invalid-variant", directorySetting(QStringLiteral("ImageDirectory=invalid:"), QString()));
    add(list, "directory-huge-path", [](Run &run) {
        const QString hugePath = run.dir + QLatin1Char('/') + QString(60000, QLatin1Char('d'));
        return directorySetting(imageDirSetting(hugePath), hugePath)(run);
    });
    add(list, "directory-empty-string", directorySetting(QStringLiteral("ImageDirectory=string:"), QString()));
    add(list, "directory-empty-string-cwd-with-images", [](Run &run) {
        // An empty path is the host's working directory.
        run.settings << QStringLiteral("ImageDirectory=string:");
        run.note = QStringLiteral("an empty directory setting shows the images of the host's working directory");
        return gradient(QSize(64, 48)).save(QDir(run.dir).filePath(QStringLiteral("here.png")))
            && gradient(QSize(48, 64)).save(QDir(run.dir).filePath(QStringLiteral("there.png")));
    });
    add(list, "directory-missing", [](Run &run) {
        const QString missing = QDir(run.dir).filePath(QStringLiteral("nowhere"));
        return directorySetting(imageDirSetting(missing), missing)(run);
    });
    add(list, "directory-empty", [](Run &run) {
        return directorySetting(imageDirSetting(run.dir), run.dir)(run);
    });
    add(list, "directory-without-images", [](Run &run) {
        return writeBytes(QDir(run.dir).filePath(QStringLiteral("readme.txt")), "no images\n")
            && gradient(QSize(16, 16)).save(QDir(run.dir).filePath(QStringLiteral(".hidden.png"))) && directorySetting(imageDirSetting(run.dir), run.dir)(run);
    });
    add(list, "directory-is-a-file", [](Run &run) {
        const QString file = QDir(run.dir).filePath(QStringLiteral("file.png"));
        return gradient(QSize(64, 48)).save(file) && directorySetting(imageDirSetting(file), file)(run);
    });

    // At and just under the old limit of 134,217,728 declared pixels and the
    // limit of 256 MiB decoded: what each file costs to decode decides, not
    // what it declares.
    const auto refused = [](const QString &name, std::function<QString(const QString &dir)> write) {
        return [name, write](Run &run) {
            const QString path = write(run.dir);
            if (path.isEmpty() || !withGoodImage(run)) {
                return false;
            }
            run.expected << loadWarning(path);
            return true;
        };
    };
    // Shown: the whole process stays under 400 MB (381 MiB).
    const auto shown = [](std::function<QString(const QString &dir)> write) {
        return [write](Run &run) {
            run.boundMiB = 381 + sanitizerExtraMiB;
            run.harnessArguments << QStringLiteral("--wait-ms") << QStringLiteral("60000");
            return !write(run.dir).isEmpty() && withGoodImage(run);
        };
    };
    add(list, "mono-png-at-the-old-pixel-limit", refused(QStringLiteral("mono.png"), [](const QString &dir) {
            // 11585 x 11585 = 134,212,225 pixels: 537 MB decoded.
            QImage image(11585, 11585, QImage::Format_Mono);
            image.fill(0);
            const QString path = QDir(dir).filePath(QStringLiteral("mono.png"));
            return image.save(path) ? path : QString();
        }));
    add(list, "png-rgba-9000x9000", refused(QStringLiteral("rgba.png"), [](const QString &dir) {
            return TestUtils::writeZeroPng(dir, QStringLiteral("rgba.png"), 9000, 9000, 8, 6);
        }));
    add(list, "png-rgba-8192x8192-at-the-new-limit", shown([](const QString &dir) {
            return TestUtils::writeZeroPng(dir, QStringLiteral("rgba.png"), 8192, 8192, 8, 6);
        }));
    add(list, "png-16-bit-rgba-at-the-old-pixel-limit", refused(QStringLiteral("deep.png"), [](const QString &dir) {
            return TestUtils::writeZeroPng(dir, QStringLiteral("deep.png"), 11585, 11585, 16, 6);
        }));
    // Sixteen bits a channel count 16 bytes a pixel: decoded at 8, converted
    // to 4, scaled.
    add(list, "png-16-bit-rgba-4200x4200-over-the-new-limit", refused(QStringLiteral("deep.png"), [](const QString &dir) {
            return TestUtils::writeZeroPng(dir, QStringLiteral("deep.png"), 4200, 4200, 16, 6);
        }));
    add(list, "png-16-bit-rgba-4096x4096-at-the-new-limit", shown([](const QString &dir) {
            return TestUtils::writeZeroPng(dir, QStringLiteral("deep.png"), 4096, 4096, 16, 6);
        }));
    add(list, "jpeg-baseline-11584x11584-at-the-old-pixel-limit", shown([](const QString &dir) {
            return TestUtils::writeFlatJpeg(dir, QStringLiteral("flat.jpg"), 11584, 11584, false);
        }));
    add(list, "jpeg-baseline-panorama-30000x20000", shown([](const QString &dir) {
            return TestUtils::writeFlatJpeg(dir, QStringLiteral("panorama.jpg"), 30000, 20000, false);
        }));
    add(list, "jpeg-progressive-11584x11584-at-the-old-pixel-limit", refused(QStringLiteral("progressive.jpg"), [](const QString &dir) {
            return TestUtils::writeFlatJpeg(dir, QStringLiteral("progressive.jpg"), 11584, 11584, true);
        }));
    add(list, "jpeg-progressive-11264x11264-under-the-new-limit", shown([](const QString &dir) {
            return TestUtils::writeFlatJpeg(dir, QStringLiteral("progressive.jpg"), 11264, 11264, true);
        }));
    add(list, "bmp-rle8-11585x11585-at-the-old-pixel-limit", refused(QStringLiteral("rle.bmp"), [](const QString &dir) {
            return TestUtils::writeRleBmp(dir, QStringLiteral("rle.bmp"), 11585, 11585);
        }));
    // Eight bits a pixel decoded, then copied into a 32-bit pixmap: five
    // bytes a pixel in all, so 8192 x 8192 (320 MiB) is over the limit,
    // where the decoding alone (64 MiB) once seemed well within it.
    add(list, "bmp-rle8-8192x8192-over-the-new-limit", refused(QStringLiteral("rle.bmp"), [](const QString &dir) {
            return TestUtils::writeRleBmp(dir, QStringLiteral("rle.bmp"), 8192, 8192);
        }));
    add(list, "bmp-rle8-7326x7326-at-the-new-limit", shown([](const QString &dir) {
            return TestUtils::writeRleBmp(dir, QStringLiteral("rle.bmp"), 7326, 7326);
        }));
    if (QImageReader::supportedImageFormats().contains("svg")) {
        const auto svg = [](const QString &dir, int size) {
            // Named like a PNG: the reader goes by the content.
            const QString path = QDir(dir).filePath(QStringLiteral("vector.png"));
            const QByteArray side = QByteArray::number(size);
            const QByteArray document = "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + side + "\" height=\"" + side + "\"><rect width=\"" + side
                + "\" height=\"" + side + "\" fill=\"#336699\"/></svg>";
            return writeBytes(path, document) ? path : QString();
        };
        // Cropped, it is rendered at the size shown.
        add(list, "svg-11585x11585-named-png-cropped", shown([svg](const QString &dir) {
                return svg(dir, 11585);
            }));
        // Centred, it would be rendered at its own size.
        add(list, "svg-11585x11585-named-png-centred", [svg](Run &run) {
            const QString path = svg(run.dir, 11585);
            if (path.isEmpty() || !withGoodImage(run)) {
                return false;
            }
            run.settings << QStringLiteral("Position=int:3");
            run.expected << loadWarning(path);
            return true;
        });
        add(list, "svg-8192x8192-named-png-centred-at-the-new-limit", [svg](Run &run) {
            run.settings << QStringLiteral("Position=int:3");
            run.boundMiB = 381 + sanitizerExtraMiB;
            run.harnessArguments << QStringLiteral("--wait-ms") << QStringLiteral("60000");
            return !svg(run.dir, 8192).isEmpty() && withGoodImage(run);
        });
    }

    // Today's formats, where this machine's image plug-ins write them: empty,
    // cut in half and with a damaged header (a TIFF still decodes then), and
    // a header that declares more than the decoding limit takes.
    const QList<QByteArray> writable = QImageWriter::supportedImageFormats();
    for (const char *format : {"webp", "tiff", "heic", "avif", "jxl"}) {
        if (!writable.contains(format)) {
            continue;
        }
        const QByteArray bytes = encoded(small, format);
        const QString suffix = QLatin1String(format);
        const bool tiff = qstrcmp(format, "tiff") == 0;
        add(list, qPrintable(QStringLiteral("zero-byte-%1").arg(suffix)), badFile(QStringLiteral("empty.") + suffix, QByteArray(), false));
        add(list, qPrintable(QStringLiteral("truncated-%1").arg(suffix)), badFile(QStringLiteral("half.") + suffix, bytes.left(bytes.size() / 2), false));
        add(list, qPrintable(QStringLiteral("corrupted-%1-header").arg(suffix)), badFile(QStringLiteral("head.") + suffix, inverted(bytes, 8, 40), tiff));
    }
    add(list, "zero-byte-gif", badFile(QStringLiteral("empty.gif"), QByteArray(), false));
    if (writable.contains("webp")) {
        // An extended WebP header with a canvas of 16384 x 16384: 1 GiB.
        QByteArray vp8x("VP8X");
        const QByteArray payload = QByteArray("\0\0\0\0", 4) + QByteArray("\xff\x3f\0\xff\x3f\0", 6);
        vp8x.append(char(payload.size())).append(QByteArray(3, '\0')).append(payload);
        QByteArray webp("RIFF");
        const int riffSize = 4 + vp8x.size();
        webp.append(char(riffSize)).append(QByteArray(3, '\0')).append("WEBP").append(vp8x);
        add(list, "webp-declaring-16384x16384", badFile(QStringLiteral("huge.webp"), webp, false));
        add(list,
            "webp-8000x8000-at-the-new-limit",
            shown([](const QString &dir) {
                return TestUtils::writeImage(dir, QStringLiteral("large.webp"), gradient(QSize(8000, 8000)));
            }),
            true);
    }
    if (writable.contains("tiff")) {
        // A little-endian TIFF header whose one directory declares 65535 x
        // 65535 pixels and nothing else.
        QByteArray tiff("II*\0\x08\0\0\0", 8);
        tiff.append(char(2)).append('\0');
        for (quint16 tag : {quint16(256), quint16(257)}) {
            tiff.append(char(tag & 0xff)).append(char(tag >> 8)).append(char(3)).append('\0');
            tiff.append(char(1)).append(QByteArray(3, '\0')).append("\xff\xff\0\0", 4);
        }
        tiff.append(QByteArray(4, '\0'));
        add(list, "tiff-declaring-65535x65535", badFile(QStringLiteral("huge.tiff"), tiff, false));
        add(list,
            "tiff-5792x5792-at-the-new-limit",
            shown([](const QString &dir) {
                return TestUtils::writeImage(dir, QStringLiteral("large.tiff"), gradient(QSize(5792, 5792)));
            }),
            true);
    }
    for (const char *format : {"heic", "avif", "jxl"}) {
        if (writable.contains(format)) {
            add(list,
                qPrintable(QStringLiteral("%1-4096x4096-at-the-new-limit").arg(QLatin1String(format))),
                shown([format](const QString &dir) {
                    return TestUtils::writeImage(dir, QStringLiteral("large.") + QLatin1String(format), gradient(QSize(4096, 4096)));
                }),
                true);
        }
    }

    // Slow kinds for the full run.
    add(
        list,
        "image-1x1-tile-full-hd",
        [](Run &run) {
            run.harnessArguments << QStringLiteral("--size") << QStringLiteral("1920x1080") << QStringLiteral("--resize") << QStringLiteral("1920x1200")
                                 << QStringLiteral("--wait-ms") << QStringLiteral("60000");
            return oddSize(QSize(1, 1), 2, 1)(run);
        },
        true);
    return list;
}

struct Figures {
    QString kind;
    qint64 peakKiB = -1;
    qint64 wallMs = -1;
    int switches = -1;
    qint64 destroyMs = -1;
    QString note;
};
}

class RobustnessTest : public QObject
{
    Q_OBJECT

private:
    QList<Kind> m_kinds;
    QList<Figures> m_figures;
    bool m_full = false;

private Q_SLOTS:
    void initTestCase()
    {
        m_full = qEnvironmentVariable("ZAV_ROBUSTNESS_FULL") == QLatin1String("1");
        m_kinds = kinds();
        QVERIFY(QFileInfo(QStringLiteral(ZAV_ROBUSTNESS_HARNESS)).isExecutable());
        qInfo("%s corpus; bounds: exit within %d ms, peak memory %lld MiB unless a kind says otherwise",
              m_full ? "full" : "reduced",
              childTimeoutMs,
              defaultBoundMiB);
    }

    void cleanupTestCase()
    {
        qInfo("%-48s %10s %8s %9s %10s  %s", "kind", "peak-KiB", "wall-ms", "switches", "destroy-ms", "note");
        for (const Figures &f : qAsConst(m_figures)) {
            qInfo("%-48s %10lld %8lld %9d %10lld  %s", qPrintable(f.kind), f.peakKiB, f.wallMs, f.switches, f.destroyMs, qPrintable(f.note));
        }
    }

    void badInputEndsNormallyWithinBounds_data()
    {
        QTest::addColumn<int>("index");
        const QList<Kind> all = kinds();
        for (int i = 0; i < all.size(); ++i) {
            if (all.at(i).fullOnly && qEnvironmentVariable("ZAV_ROBUSTNESS_FULL") != QLatin1String("1")) {
                continue;
            }
            QTest::newRow(all.at(i).name.constData()) << i;
        }
    }

    void badInputEndsNormallyWithinBounds()
    {
        QFETCH(int, index);
        const Kind &kind = m_kinds.at(index);
        QTemporaryDir temporary;
        QVERIFY(temporary.isValid());
        const QString rowDir = QDir(temporary.path()).filePath(QStringLiteral("input"));
        QVERIFY(QDir().mkpath(rowDir));
        Run run;
        run.dir = rowDir;
        QVERIFY2(kind.build(run), "could not build the input");

        QStringList arguments;
        for (const QString &setting : qAsConst(run.settings)) {
            arguments << QStringLiteral("--set") << setting;
        }
        arguments << run.harnessArguments;
        QProcess child;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        environment.remove(QStringLiteral("QT_LOGGING_RULES"));
        if (!run.scaleFactor.isEmpty()) {
            environment.insert(QStringLiteral("QT_SCALE_FACTOR"), run.scaleFactor);
        }
        if (environment.contains(QStringLiteral("ASAN_OPTIONS"))) {
            // A request the system cannot meet gives a null pointer, as in
            // the production build, rather than AddressSanitizer's report.
            environment.insert(QStringLiteral("ASAN_OPTIONS"),
                               environment.value(QStringLiteral("ASAN_OPTIONS")) + QStringLiteral(":allocator_may_return_null=1"));
        }
        child.setProcessEnvironment(environment);
        // An empty directory setting means the host's working directory.
        child.setWorkingDirectory(rowDir);
        QElapsedTimer wall;
        wall.start();
        child.start(QStringLiteral(ZAV_ROBUSTNESS_HARNESS), arguments);
        QVERIFY2(child.waitForStarted(), qPrintable(child.errorString()));
        const bool finished = child.waitForFinished(run.timeoutMs);
        const qint64 wallMs = wall.elapsed();
        if (!finished) {
            child.kill();
            child.waitForFinished();
        }
        const QString errors = QString::fromUtf8(child.readAllStandardError());
        const QString output = QString::fromUtf8(child.readAllStandardOutput());

        QStringList problems;
        if (!finished) {
            problems << QStringLiteral("the harness hung for %1 ms and was killed").arg(wallMs);
        } else if (child.exitStatus() != QProcess::NormalExit) {
            problems << QStringLiteral("the harness crashed");
        } else if (child.exitCode() != 0) {
            problems << QStringLiteral("the harness exited with %1").arg(child.exitCode());
        }

        QMap<QString, QString> values;
        QStringList logged;
        const QStringList lines = output.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        for (const QString &line : lines) {
            if (line.startsWith(QLatin1String("log: "))) {
                const int space = line.indexOf(QLatin1Char(' '), 5);
                const QString type = line.mid(5, space - 5);
                const QString text = unescaped(line.mid(space + 1));
                // Debug and info lines are the normal flow; the default
                // settings' directory is missing on a test machine.
                if (type != QLatin1String("debug") && type != QLatin1String("info") && text != directoryCritical(defaultDirectory)) {
                    logged << text;
                }
            } else {
                const int colon = line.indexOf(QLatin1String(": "));
                values.insert(line.left(colon), line.mid(colon + 2));
            }
        }
        const qint64 peakKiB = values.value(QStringLiteral("peak-rss-kib"), QStringLiteral("-1")).toLongLong();
        const int switches = values.value(QStringLiteral("switches"), QStringLiteral("-1")).toInt();
        const qint64 destroyMs = values.value(QStringLiteral("destroy-ms"), QStringLiteral("-1")).toLongLong();
        m_figures.append(Figures{QString::fromLatin1(kind.name), peakKiB, wallMs, switches, destroyMs, problems.isEmpty() ? run.note : problems.first()});
        qInfo("%s: peak %lld KiB, %lld ms, %d switches, destroyed in %lld ms%s%s",
              kind.name.constData(),
              peakKiB,
              wallMs,
              switches,
              destroyMs,
              run.note.isEmpty() ? "" : "; ",
              qPrintable(run.note));

        if (problems.isEmpty()) {
            // The plug-in's lines for this input, each at least once, and no
            // other warning or critical line.
            for (const QString &line : qAsConst(run.expected)) {
                if (!logged.contains(line)) {
                    problems << QStringLiteral("missing line: ") + line;
                }
            }
            for (const QString &line : qAsConst(logged)) {
                if (!run.expected.contains(line)) {
                    problems << QStringLiteral("unexpected line: ") + line;
                }
            }
            if (peakKiB <= 0) {
                problems << QStringLiteral("no peak memory reported");
            } else if (peakKiB >= run.boundMiB * 1024) {
                problems << QStringLiteral("peak memory %1 KiB over the bound of %2 MiB").arg(peakKiB).arg(run.boundMiB);
            }
            if (switches < run.minSwitches || (run.maxSwitches >= 0 && switches > run.maxSwitches)) {
                problems << QStringLiteral("%1 switches, expected %2 to %3").arg(switches).arg(run.minSwitches).arg(run.maxSwitches);
            }
            // Nothing here keeps the cache thread busy at the end: the
            // label's shutdown does not reach its 5000 ms time-out.
            if (destroyMs < 0 || destroyMs >= 5000) {
                problems << QStringLiteral("destroying took %1 ms").arg(destroyMs);
            }
        }

        const QString report = problems.join(QLatin1Char('\n'))
            + QStringLiteral("\n--- standard output:\n%1\n--- standard error:\n%2").arg(output.left(20000), errors.right(20000));
        if (kind.knownDefect) {
            // The failure is expected, and QtTest would not show its message.
            QString sanitizer;
            const QStringList errorLines = errors.split(QLatin1Char('\n'));
            for (const QString &line : errorLines) {
                if (line.startsWith(QLatin1String("SUMMARY: ")) || line.contains(QLatin1String("ERROR: AddressSanitizer"))) {
                    sanitizer += QLatin1Char(' ') + line.trimmed();
                }
            }
            qInfo("%s: %s%s", kind.name.constData(), qPrintable(problems.join(QLatin1String("; "))), qPrintable(sanitizer));
            QEXPECT_FAIL("", kind.knownDefect, Abort);
        }
        QVERIFY2(problems.isEmpty(), qPrintable(report));

        if (!run.skipAfterChecks.isEmpty()) {
            QSKIP(qPrintable(run.skipAfterChecks));
        }
    }
};

QTEST_MAIN(RobustnessTest)

#include "robustnesstest.moc"
