/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// Bad inputs, each shown in a child process by the robustness harness (a
// host like a lock screen: it loads the built plug-in, lets slides switch,
// resizes and destroys it). The child must exit normally in time, under the
// kind's peak memory bound, having logged at warning level or above exactly
// what the plug-in should say of that input. ZAV_ROBUSTNESS_FULL=1 adds the
// slow kinds.

#include "testutils.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QImageReader>
#include <QImageWriter>
#include <QPainter>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <functional>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
// A normal run takes well under a second, a sanitizer run a few; only the
// full-run kinds take longer.
const int childTimeoutMs = 90000;

// Peak memory (VmHWM) of a child unless a kind states its own: small images
// peak at about 30 MiB (40 at ratio 2); the sanitizers' shadow memory and
// quarantine double that and more.
#if defined(__SANITIZE_ADDRESS__)
const qint64 defaultBoundMiB = 768;
const qint64 sanitizerExtraMiB = 512;
#else
const qint64 defaultBoundMiB = 256;
const qint64 sanitizerExtraMiB = 0;
#endif

const QString defaultDirectory = QStringLiteral("/usr/share/wallpapers/slideshow/");

using TestUtils::encoded;
using TestUtils::loadWarning;
using TestUtils::noImagesError;
using namespace std::placeholders;

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

// The bytes with every one in [from, to) inverted.
QByteArray inverted(QByteArray bytes, int from, int to)
{
    for (int i = qMax(0, from); i < qMin(to, bytes.size()); ++i) {
        bytes[i] = char(~bytes.at(i));
    }
    return bytes;
}

// A log text as the harness prints it, on one line.
QString escaped(QString text)
{
    return text.replace(QLatin1Char('\\'), QLatin1String("\\\\"))
        .replace(QLatin1Char('\n'), QLatin1String("\\n"))
        .replace(QLatin1Char('\r'), QLatin1String("\\r"));
}

// What one kind of input needs and what its run must show.
struct Run {
    QString dir; // the temporary folder of the row
    QStringList arguments; // of the harness
    QString scaleFactor; // QT_SCALE_FACTOR of the child, empty for none
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

// Prepares a run: writes its input, sets its settings and what it expects.
using Builder = std::function<bool(Run &)>;

struct Kind {
    QByteArray name;
    bool fullOnly;
    Builder build;
};

void add(QList<Kind> &list, const QByteArray &name, const Builder &build, bool fullOnly = false)
{
    list << Kind{name, fullOnly, build};
}

Builder operator+(const Builder &first, const Builder &second)
{
    return [first, second](Run &run) {
        return first(run) && second(run);
    };
}

template<typename Field, typename Value>
Builder assign(Field Run::*field, const Value &value)
{
    return [field, value](Run &run) {
        run.*field = value;
        return true;
    };
}

// A setting of the harness; $dir stands for the row's folder.
Builder set(const QString &setting)
{
    return [setting](Run &run) {
        run.arguments << QStringLiteral("--set") << QString(setting).replace(QLatin1String("$dir"), run.dir);
        return true;
    };
}

// Further arguments of the harness, separated by blanks.
Builder arguments(const QString &list)
{
    return [list](Run &run) {
        run.arguments << list.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        return true;
    };
}

// The number of switches the run must see; a wait, if given, lets the
// harness wait that long for the first one.
Builder switches(int min, int max = -1, int waitMs = 0)
{
    return assign(&Run::minSwitches, min) + assign(&Run::maxSwitches, max) + arguments(waitMs > 0 ? QStringLiteral("--wait-ms %1").arg(waitMs) : QString());
}

// A directory with one good image beside the input, so that the show
// switches between them and the input is requested, painted and faded.
bool withGoodImage(Run &run)
{
    run.arguments << QStringLiteral("--set") << QStringLiteral("ImageDirectory=string:") + run.dir;
    return gradient(QSize(64, 48)).save(QDir(run.dir).filePath(QStringLiteral("good.png")));
}

// Writes an input into the folder: its path, or empty on error.
using Write = std::function<QString(const QString &dir, const QString &name)>;

Write bytes(const QByteArray &content)
{
    return [content](const QString &dir, const QString &name) {
        return TestUtils::writeFile(QDir(dir).filePath(name), content);
    };
}

// A gradient of the size, or, given a fill, an image of the format filled
// with that pixel value.
Write picture(const QSize &size, QImage::Format format = QImage::Format_RGB32, int fill = -1)
{
    return [size, format, fill](const QString &dir, const QString &name) {
        QImage image = fill < 0 ? gradient(size).convertToFormat(format) : QImage(size, format);
        if (fill >= 0) {
            image.fill(uint(fill));
        }
        return TestUtils::writeImage(dir, name, image);
    };
}

enum Outcome {
    Shown,
    // A black slide and the worker's warning.
    Refused,
    // At the decoding limit: shown, given time to decode, and the whole
    // process stays under 400 MB (381 MiB).
    ShownLarge,
};

// The input written into the row's folder, and what the show makes of it.
Builder file(const QByteArray &name, const Write &write, Outcome outcome = Shown)
{
    const Builder written = [name, write, outcome](Run &run) {
        const QString path = write(run.dir, QString::fromUtf8(name));
        if (outcome == Refused) {
            run.expected << loadWarning(path);
        }
        return !path.isEmpty();
    };
    return outcome != ShownLarge ? written : written + assign(&Run::boundMiB, 381 + sanitizerExtraMiB) + arguments(QStringLiteral("--wait-ms 60000"));
}

// The input beside a good image.
Builder input(const QByteArray &name, const Write &write, Outcome outcome = Shown)
{
    return file(name, write, outcome) + withGoodImage;
}

// A file larger than the screen, in that mode (Crop unless said): what its
// preparation holds is little more than the screen, or nothing, so the host
// stays under 200 MB (imagefittingtest shows what it makes of these files).
Builder fitted(const Builder &build, int mode = 1, const QSize &screen = QSize(640, 480))
{
    return set(QStringLiteral("Position=int:%1").arg(mode)) + arguments(QStringLiteral("--size %1x%2").arg(screen.width()).arg(screen.height())) + build
        + assign(&Run::boundMiB, 200 + sanitizerExtraMiB);
}

Write flatJpeg(int width, int height, bool progressive = false)
{
    return std::bind(TestUtils::writeFlatJpeg, _1, _2, width, height, progressive);
}

Builder oddSize(const QSize &size, int mode, int ratio)
{
    return input("odd.png", picture(size)) + set(QStringLiteral("Position=int:%1").arg(mode))
        + assign(&Run::scaleFactor, ratio == 1 ? QString() : QString::number(ratio));
}

// A named pipe, or given a target (relative to the link's folder, or
// absolute), a symbolic link to it.
Builder special(const char *name, const char *linkTarget = nullptr)
{
    return [name, linkTarget](Run &run) {
        const QByteArray path = QFile::encodeName(QDir(run.dir).filePath(QLatin1String(name)));
        return (linkTarget ? ::symlink(linkTarget, path.constData()) : ::mkfifo(path.constData(), 0644)) == 0;
    };
}

// A directory setting ("type:value") whose value ($dir: the row's folder)
// the message that there are no images shows; nothing switches.
Builder noImages(const QString &directory)
{
    return set(QStringLiteral("ImageDirectory=") + directory) + switches(0, -1, 400) + [directory](Run &run) {
        run.expected << noImagesError(directory.section(QLatin1Char(':'), 1).replace(QLatin1String("$dir"), run.dir));
        return true;
    };
}

Builder manyImages(int count)
{
    return set(QStringLiteral("ImageDirectory=string:$dir")) + [count](Run &run) {
        const Write png = bytes(encoded(gradient(QSize(16, 12)), "png"));
        bool written = true;
        for (int i = 0; i < count && written; ++i) {
            written = !png(run.dir, QStringLiteral("img-%1.png").arg(i, 5, 10, QLatin1Char('0'))).isEmpty();
        }
        return written;
    };
}

QList<Kind> kinds()
{
    const QImage small = gradient(QSize(64, 48));
    const QByteArray jpg = encoded(small, "jpg");
    const QByteArray png = encoded(small, "png");
    const QByteArray bmp = encoded(small, "bmp");
    const QByteArray xpm = encoded(small, "xpm");
    const QList<QByteArray> writable = QImageWriter::supportedImageFormats();
    const char *const modes[] = {"stretch", "crop", "tile", "center"};
    QList<Kind> list;

    // Empty and cut in half (the BMP reader shows what there is, the rest
    // black; the others fail); the newer formats this machine writes also
    // with a damaged header (a TIFF still decodes).
    for (const QByteArray format : {"jpg", "png", "bmp", "xpm", "pbm", "webp", "tiff", "heic", "avif", "jxl"}) {
        if (!writable.contains(format)) {
            continue;
        }
        const QByteArray data = encoded(format == "pbm" ? small.convertToFormat(QImage::Format_Mono) : small, format.constData());
        add(list, "zero-byte-" + format, input("empty." + format, bytes(QByteArray()), Refused));
        add(list, "truncated-" + format, input("half." + format, bytes(data.left(data.size() / 2)), format == "bmp" ? Shown : Refused));
        if (!QByteArrayList{"jpg", "png", "bmp", "xpm", "pbm"}.contains(format)) {
            add(list, "corrupted-" + format + "-header", input("head." + format, bytes(inverted(data, 8, 40)), format == "tiff" ? Shown : Refused));
        }
    }
    add(list, "zero-byte-gif", input("empty.gif", bytes(QByteArray()), Refused));
    add(list, "truncated-png-signature-only", input("sig.png", bytes(png.left(8)), Refused));
    // Damaged inside. A JPEG with inverted entropy-coded data still decodes
    // (libjpeg resynchronises), and a BMP with inverted pixels; a PNG whose
    // data fails its checksum does not.
    add(list, "corrupted-jpg-data", input("bits.jpg", bytes(inverted(jpg, jpg.size() / 2, jpg.size() / 2 + 64))));
    add(list, "corrupted-jpg-header", input("head.jpg", bytes(inverted(jpg, 2, 40)), Refused));
    add(list, "corrupted-png-data", input("bits.png", bytes(inverted(png, png.size() / 2, png.size() / 2 + 64)), Refused));
    add(list, "corrupted-png-header", input("head.png", bytes(inverted(png, 12, 29)), Refused));
    // Width and height 0x7fffffff.
    add(list, "corrupted-bmp-header", input("head.bmp", bytes(bmp.left(18) + QByteArray::fromHex("ffffff7f ffffff7f") + bmp.mid(26)), Refused));
    add(list, "corrupted-bmp-data", input("bits.bmp", bytes(inverted(bmp, 60, bmp.size()))));
    // The first entry of the colour table replaced by garbage.
    const int table = xpm.indexOf("\",\n\"") + 4;
    add(list, "corrupted-xpm-colours", input("colours.xpm", bytes(xpm.left(table) + "\x01\x02 q #zzzzzz\",\n\"" + xpm.mid(table + 20)), Refused));
    add(list, "corrupted-pbm-huge-header", input("huge.pbm", bytes(QByteArray("P4\n99999 99999\n") + QByteArray(64, '\xaa')), Refused));
    add(list, "corrupted-ppm-short-data", input("short.ppm", bytes(QByteArray("P6\n640 480\n255\n") + QByteArray(1000, '\x40')), Refused));
    // Names that lie about the content.
    add(list, "png-named-jpg", input("really-png.jpg", bytes(png)));
    add(list, "jpg-named-bmp", input("really-jpg.bmp", bytes(jpg)));
    add(list, "text-named-jpg", input("notes.jpg", bytes("These are not the pixels you are looking for.\n"), Refused));
    QByteArray noise(4096, 0);
    QRandomGenerator(12345).fillRange(reinterpret_cast<quint32 *>(noise.data()), noise.size() / 4);
    add(list, "random-bytes-png", input("noise.png", bytes(noise), Refused));
    // 24 bytes of GIF named like a JPEG: a logical screen of 16000 x 16000
    // (1 GB as 32-bit pixels), one 1 x 1 frame, cut short. The reader reports
    // the frame's size; the decoder would allocate and clear the screen.
    const QByteArray gif = QByteArray("GIF87a") + QByteArray::fromHex("803e 803e 000000 2c 00000000 0100 0100 00 02");
    add(list, "gif-screen-16000x16000-named-jpg", fitted(input("screen.jpg", bytes(gif), Refused)));

    // Extreme shapes in every mode at ratios 1 and 2: Crop cuts a thin image's
    // visible part out before scaling, so none builds a huge intermediate.
    for (const QSize &shape : {QSize(1, 1), QSize(1, 10000), QSize(10000, 1)}) {
        for (int mode = 0; mode < 4; ++mode) {
            for (int ratio : {1, 2}) {
                add(list,
                    QStringLiteral("image-%1x%2-%3-ratio%4").arg(shape.width()).arg(shape.height()).arg(QLatin1String(modes[mode])).arg(ratio).toLatin1(),
                    oddSize(shape, mode, ratio));
            }
        }
    }
    add(list, "image-1x1-tile-full-hd", arguments(QStringLiteral("--size 1920x1080 --resize 1920x1200 --wait-ms 60000")) + oddSize(QSize(1, 1), 2, 1), true);

    // Formats at their limits. A mono PNG of more pixels than the worker
    // decodes is a black slide.
    add(list, "mono-png-declaring-12000x12000", fitted(input("wide.png", picture(QSize(12000, 12000), QImage::Format_Mono, 1), Refused)));
    QImage alpha(200, 150, QImage::Format_ARGB32);
    alpha.fill(Qt::transparent);
    QPainter(&alpha).fillRect(QRect(20, 20, 100, 80), QColor(255, 0, 0, 128));
    add(list, "png-with-alpha", input("alpha.png", bytes(encoded(alpha, "png"))));
    add(list, "png-16-bit-channels", input("deep.png", picture(QSize(200, 150), QImage::Format_RGBA64)));

    // Not plain files: the scan lists regular files and links to them only,
    // so the pipe, the links to a device, a pipe and nothing, the loop and
    // the folder are never opened.
    add(list, "named-pipe", withGoodImage + special("pipe.png"));
    add(list, "symlink-to-dev-zero", withGoodImage + special("zero.png", "/dev/zero"));
    // A worker waiting in open() for a writer would hang the host: cut short
    // well before the usual bound (two small images take a second or two).
    add(list, "symlink-to-named-pipe", withGoodImage + special(".pipe") + special("pipe.png", ".pipe") + assign(&Run::timeoutMs, 15000));
    add(list, "dangling-symlink", withGoodImage + special("dangling.png", "gone.png"));
    add(list, "symlink-loop", withGoodImage + special("loop.png", "loop.png"));
    add(list, "symlink-to-good-image", withGoodImage + special("link.png", "good.png"));
    add(
        list,
        "subdirectory-named-like-an-image",
        withGoodImage + [](Run &run) {
            return QDir(run.dir).mkdir(QStringLiteral("folder.png"));
        });
    add(
        list,
        "unreadable-file",
        input("secret.png", picture(QSize(64, 48))) + [](Run &run) {
            const QString path = QDir(run.dir).filePath(QStringLiteral("secret.png"));
            if (!QFile::setPermissions(path, QFileDevice::Permissions())) {
                return false;
            } else if (QFile(path).open(QIODevice::ReadOnly)) {
                run.note = QStringLiteral("mode 000 did not stop reading (running as root)");
                run.skipAfterChecks = QStringLiteral("As root, mode 000 does not stop reads: no load warning can be provoked; checked as a readable image.");
            } else {
                run.expected << loadWarning(path);
            }
            return true;
        });

    // Names.
    add(list, "name-with-spaces", input("my holiday  photo .png", bytes(png)));
    add(list, "name-with-newline", input("line\nbreak.png", bytes(png)));
    add(list, "name-with-leading-dashes", input("-rf.png", bytes(png)) + file("--help.png", bytes(png)));
    add(
        list,
        "name-not-utf8",
        withGoodImage + [png](Run &run) {
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
    const auto setting = [](const char *argument) {
        return withGoodImage + set(QLatin1String(argument));
    };
    const Builder noSwitch = switches(0, 0, 600);
    const Builder unknownPosition = [](Run &run) {
        run.expected << TestUtils::logText(LogText::unknownPosition, QDir(run.dir).filePath(QStringLiteral("good.png")));
        return true;
    };
    add(list, "autoswitch-zero", setting("AutoSwitch=int:0"));
    add(list, "autoswitch-negative", setting("AutoSwitch=int:-1") + noSwitch);
    add(list, "autoswitch-huge", setting("AutoSwitch=int:2147483647") + noSwitch);
    // toInt() keeps the low 32 bits, 1215752191 s, which the interval caps at
    // the largest int of milliseconds.
    add(list, "autoswitch-huge-longlong", setting("AutoSwitch=longlong:99999999999") + noSwitch);
    add(list, "autoswitch-not-a-number", setting("AutoSwitch=string:soon"));
    add(list, "effect-zero", setting("Effect=int:0"));
    // Qt refuses the duration and keeps the default 500 ms.
    add(list, "effect-negative", setting("Effect=int:-1") + switches(2));
    // The first fade never ends within the run.
    add(list, "effect-huge", setting("Effect=int:2147483647") + switches(1, 1, 600));
    add(list, "effect-not-a-number", setting("Effect=string:slow"));
    add(list, "position-zero", setting("Position=int:0"));
    add(list, "position-negative", setting("Position=int:-1") + unknownPosition);
    add(list, "position-huge", setting("Position=int:2147483647") + unknownPosition);
    // Four is Fit, the fifth mode; five is the first unknown one.
    add(list, "position-four-fit", setting("Position=int:4"));
    add(list, "position-five", setting("Position=int:5") + unknownPosition);
    add(list, "position-not-a-number", setting("Position=string:middle"));
    add(list, "directory-zero", noImages(QStringLiteral("int:0")));
    add(list, "directory-negative", noImages(QStringLiteral("int:-1")));
    add(list, "directory-not-a-string", noImages(QStringLiteral("double:3.25")));
    add(list, "directory-invalid-variant", noImages(QStringLiteral("invalid:")));
    add(list, "directory-empty-string", noImages(QStringLiteral("string:")));
    const QString huge = QStringLiteral("$dir/") + QString(60000, QLatin1Char('d'));
    add(list, "directory-huge-path", noImages(QStringLiteral("string:") + huge));
    add(list, "directory-missing", noImages(QStringLiteral("string:$dir/nowhere")));
    add(list, "directory-empty", noImages(QStringLiteral("string:$dir")));
    add(list,
        "directory-without-images",
        file("readme.txt", bytes("no images\n")) + file(".hidden.png", picture(QSize(16, 16))) + noImages(QStringLiteral("string:$dir")));
    add(list, "directory-is-a-file", file("file.png", picture(QSize(64, 48))) + noImages(QStringLiteral("string:$dir/file.png")));
    // An empty path is the host's working directory.
    const QString cwdNote = QStringLiteral("an empty directory setting shows the images of the host's working directory");
    add(list,
        "directory-empty-string-cwd-with-images",
        set(QStringLiteral("ImageDirectory=string:")) + file("here.png", picture(QSize(64, 48))) + file("there.png", picture(QSize(48, 64)))
            + assign(&Run::note, cwdNote));

    // At and just under the old limit of 134,217,728 declared pixels and the
    // limit of 256 MiB decoded: what each file costs to decode decides, not
    // what it declares. 11585 x 11585 = 134,212,225 pixels: 537 MB decoded.
    add(list, "mono-png-at-the-old-pixel-limit", input("mono.png", picture(QSize(11585, 11585), QImage::Format_Mono, 0), Refused));
    add(list, "png-rgba-9000x9000", fitted(input("rgba.png", std::bind(TestUtils::writeZeroPng, _1, _2, 9000, 9000, 8, 6), Refused)));
    add(list, "png-rgba-8192x8192-at-the-new-limit", input("rgba.png", std::bind(TestUtils::writeZeroPng, _1, _2, 8192, 8192, 8, 6), ShownLarge));
    add(list, "png-16-bit-rgba-at-the-old-pixel-limit", input("deep.png", std::bind(TestUtils::writeZeroPng, _1, _2, 11585, 11585, 16, 6), Refused));
    // 538 MB decoded, which a count of pixels alone took for half of the
    // old limit.
    add(list, "png-16-bit-rgba-8200x8200", fitted(input("deep.png", std::bind(TestUtils::writeZeroPng, _1, _2, 8200, 8200, 16, 6), Refused)));
    // Sixteen bits a channel count 16 bytes a pixel: decoded at 8, converted
    // to 4, scaled.
    add(list, "png-16-bit-rgba-4200x4200-over-the-new-limit", input("deep.png", std::bind(TestUtils::writeZeroPng, _1, _2, 4200, 4200, 16, 6), Refused));
    add(list, "png-16-bit-rgba-4096x4096-at-the-new-limit", input("deep.png", std::bind(TestUtils::writeZeroPng, _1, _2, 4096, 4096, 16, 6), ShownLarge));
    add(list, "jpeg-baseline-11584x11584-at-the-old-pixel-limit", input("flat.jpg", flatJpeg(11584, 11584), ShownLarge));
    // Decoded through the library's scaling into little more than the
    // screen; centred or tiled, only the part shown is decoded (whole, the
    // panorama would take 2.4 GB), also on a full-HD screen.
    for (int mode = 0; mode < 4; ++mode) {
        const QByteArray name = modes[mode];
        add(list, "jpeg-baseline-panorama-30000x20000-" + name, fitted(input("panorama.jpg", flatJpeg(30000, 20000), ShownLarge), mode));
        if (mode >= 2) {
            add(list, "jpeg-baseline-16000x5000-" + name + "-full-hd", fitted(input("wide.jpg", flatJpeg(16000, 5000), ShownLarge), mode, QSize(1920, 1080)));
        }
    }
    add(list, "png-1000x8000-crop-4k", fitted(input("tall.png", bytes(encoded(TestUtils::tallScreenshot(), "png")), ShownLarge), 1, QSize(3840, 2160)));
    add(list, "jpeg-progressive-11584x11584-at-the-old-pixel-limit", fitted(input("progressive.jpg", flatJpeg(11584, 11584, true), Refused)));
    add(list, "jpeg-progressive-11264x11264-under-the-new-limit", input("progressive.jpg", flatJpeg(11264, 11264, true), ShownLarge));
    add(list, "bmp-rle8-11585x11585-at-the-old-pixel-limit", fitted(input("rle.bmp", std::bind(TestUtils::writeRleBmp, _1, _2, 11585, 11585), Refused)));
    // Eight bits a pixel decoded, then copied into a 32-bit pixmap: five
    // bytes a pixel in all, so 8192 x 8192 (320 MiB) is over the limit,
    // where the decoding alone (64 MiB) once seemed well within it.
    add(list, "bmp-rle8-8192x8192-over-the-new-limit", input("rle.bmp", std::bind(TestUtils::writeRleBmp, _1, _2, 8192, 8192), Refused));
    add(list, "bmp-rle8-7326x7326-at-the-new-limit", input("rle.bmp", std::bind(TestUtils::writeRleBmp, _1, _2, 7326, 7326), ShownLarge));
    // Named like a PNG, read by its content. Cropped, rendered at the size
    // shown; centred, it would be rendered at its own size.
    if (QImageReader::supportedImageFormats().contains("svg")) {
        add(list, "svg-11585x11585-named-png-cropped", fitted(input("vector.png", bytes(TestUtils::whiteSvg(QSize(11585, 11585))), ShownLarge)));
        add(list, "svg-11585x11585-named-png-centred", fitted(input("vector.png", bytes(TestUtils::whiteSvg(QSize(11585, 11585))), Refused), 3));
        add(list,
            "svg-8192x8192-named-png-centred-at-the-new-limit",
            set(QStringLiteral("Position=int:3")) + input("vector.png", bytes(TestUtils::whiteSvg(QSize(8192, 8192))), ShownLarge));
    }
    // Newer formats: a header declaring more than the limit, an image at it.
    if (writable.contains("webp")) {
        // An extended WebP header with a canvas of 16384 x 16384: 1 GiB.
        const QByteArray webp = "RIFF" + QByteArray::fromHex("16000000") + "WEBPVP8X" + QByteArray::fromHex("0a000000 00000000 ff3f00 ff3f00");
        add(list, "webp-declaring-16384x16384", input("huge.webp", bytes(webp), Refused));
        add(list, "webp-8000x8000-at-the-new-limit", input("large.webp", picture(QSize(8000, 8000)), ShownLarge), true);
    }
    if (writable.contains("tiff")) {
        // A little-endian TIFF header whose one directory declares 65535 x
        // 65535 pixels (tags 256 and 257) and nothing else.
        const QByteArray tiff = QByteArray::fromHex("49492a00 08000000 0200 0001 0300 01000000 ffff0000 0101 0300 01000000 ffff0000 00000000");
        add(list, "tiff-declaring-65535x65535", input("huge.tiff", bytes(tiff), Refused));
        add(list, "tiff-5792x5792-at-the-new-limit", input("large.tiff", picture(QSize(5792, 5792)), ShownLarge), true);
    }
    for (const QByteArray format : {"heic", "avif", "jxl"}) {
        if (writable.contains(format)) {
            add(list, format + "-4096x4096-at-the-new-limit", input("large." + format, picture(QSize(4096, 4096)), ShownLarge), true);
        }
    }
    return list;
}

}

class RobustnessTest : public QObject
{
    Q_OBJECT

private:
    QList<Kind> m_kinds;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(QFileInfo(QStringLiteral(ZAV_ROBUSTNESS_HARNESS)).isExecutable());
        qInfo("bounds: exit within %d ms, peak memory %lld MiB unless a kind says otherwise", childTimeoutMs, defaultBoundMiB);
    }

    void badInputEndsNormallyWithinBounds_data()
    {
        const bool full = qEnvironmentVariable("ZAV_ROBUSTNESS_FULL") == QLatin1String("1");
        qInfo("%s corpus", full ? "full" : "reduced");
        QTest::addColumn<int>("index");
        m_kinds = kinds();
        for (int i = 0; i < m_kinds.size(); ++i) {
            if (full || !m_kinds.at(i).fullOnly) {
                QTest::newRow(m_kinds.at(i).name.constData()) << i;
            }
        }
    }

    void badInputEndsNormallyWithinBounds()
    {
        QFETCH(int, index);
        const Kind &kind = m_kinds.at(index);
        QTemporaryDir temporary;
        QVERIFY(temporary.isValid());
        Run run;
        run.dir = QDir(temporary.path()).filePath(QStringLiteral("input"));
        QVERIFY(QDir().mkpath(run.dir));
        QVERIFY2(kind.build(run), "could not build the input");

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
        child.setWorkingDirectory(run.dir);
        QElapsedTimer wall;
        wall.start();
        child.start(QStringLiteral(ZAV_ROBUSTNESS_HARNESS), run.arguments);
        QVERIFY2(child.waitForStarted(), qPrintable(child.errorString()));
        const bool finished = child.waitForFinished(run.timeoutMs);
        const qint64 wallMs = wall.elapsed();
        if (!finished) {
            child.kill();
            child.waitForFinished();
        }
        const QString output = QString::fromUtf8(child.readAllStandardOutput());

        // Lines "log: <type> <text>" and "<figure>: <value>".
        QMap<QString, QString> values;
        QStringList logged;
        for (const QString &line : output.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
            const QString value = line.section(QLatin1String(": "), 1);
            const QString type = value.section(QLatin1Char(' '), 0, 0);
            if (!line.startsWith(QLatin1String("log: "))) {
                values.insert(line.section(QLatin1String(": "), 0, 0), value);
            } else if (type != QLatin1String("debug") && type != QLatin1String("info")
                       && value.section(QLatin1Char(' '), 1) != escaped(noImagesError(defaultDirectory))) {
                // Debug and info lines are the normal flow; the default
                // settings' directory is missing on a test machine.
                logged << value.section(QLatin1Char(' '), 1);
            }
        }
        const auto figure = [&values](const char *name) {
            return values.value(QLatin1String(name), QStringLiteral("-1")).toLongLong();
        };
        const qint64 peakKiB = figure("peak-rss-kib");
        const qint64 switches = figure("switches");
        const qint64 destroyMs = figure("destroy-ms");
        qInfo("%s: peak %lld KiB, %lld ms, %lld switches, destroy %lld ms %s", kind.name.data(), peakKiB, wallMs, switches, destroyMs, qPrintable(run.note));

        QStringList problems;
        const auto require = [&problems](bool holds, const QString &problem) {
            if (!holds) {
                problems << problem;
            }
        };
        require(finished, QStringLiteral("the harness hung for %1 ms and was killed").arg(wallMs));
        require(!finished || child.exitStatus() == QProcess::NormalExit, QStringLiteral("the harness crashed"));
        require(child.exitStatus() != QProcess::NormalExit || child.exitCode() == 0, QStringLiteral("the harness exited with %1").arg(child.exitCode()));
        for (QString &line : run.expected) {
            line = escaped(line);
            require(logged.contains(line), QStringLiteral("missing line: ") + line);
        }
        for (const QString &line : qAsConst(logged)) {
            require(run.expected.contains(line), QStringLiteral("unexpected line: ") + line);
        }
        require(peakKiB > 0, QStringLiteral("no peak memory reported"));
        require(peakKiB < run.boundMiB * 1024, QStringLiteral("peak memory %1 KiB over the bound of %2 MiB").arg(peakKiB).arg(run.boundMiB));
        require(switches >= run.minSwitches && (run.maxSwitches < 0 || switches <= run.maxSwitches),
                QStringLiteral("%1 switches, expected %2 to %3").arg(switches).arg(run.minSwitches).arg(run.maxSwitches));
        // Nothing here keeps the cache thread busy at the end: the label's
        // shutdown does not reach its 5000 ms time-out.
        require(destroyMs >= 0 && destroyMs < 5000, QStringLiteral("destroying took %1 ms").arg(destroyMs));
        QVERIFY2(problems.isEmpty(),
                 qPrintable(problems.join(QLatin1Char('\n'))
                            + QStringLiteral("\n--- standard output:\n%1\n--- standard error:\n%2")
                                  .arg(output.left(20000), QString::fromUtf8(child.readAllStandardError()).right(20000))));

        if (!run.skipAfterChecks.isEmpty()) {
            QSKIP(qPrintable(run.skipAfterChecks));
        }
    }
};

QTEST_MAIN(RobustnessTest)

#include "robustnesstest.moc"
