/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// The plug-in in Russian: the catalogue built from po/ru is found the way an
// installed one is (locale/ru/LC_MESSAGES under a data directory), and the
// choice boxes keep the order of their English keys, which is not the order
// of the Russian words.

#include "dialogtesthelpers.h"
#include "settings/slideshowsettingswidget.h"
#include "slideshow/slideshow.h"

#include <KLocalizedString>

#include <QFileInfo>
#include <QLocale>

#include <clocale>

using namespace Dm::ScreenSaver;
using namespace DialogTest;

class TranslationTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        // QCoreApplication has set the locale from the environment.
        const QByteArray locale = std::setlocale(LC_MESSAGES, nullptr);
        if (locale != "ru_RU.UTF-8") {
            QSKIP(qPrintable(QStringLiteral("the ru_RU.UTF-8 locale is not available here (LC_MESSAGES is %1)").arg(QString::fromLatin1(locale))));
        }
        QCOMPARE(QLocale::system().language(), QLocale::Russian);
        const QString catalogue = QStringLiteral(ZAV_LOCALE_DIR "/ru/LC_MESSAGES/zav-screensaver_slideshow.mo");
        QVERIFY2(QFileInfo::exists(catalogue), qPrintable(catalogue));
        QVERIFY(KLocalizedString::languages().contains(QStringLiteral("ru")));
    }

    // The plug-in's name, its messages and the dialog; the choices keep the
    // order of their English keys.
    void textsAreRussian()
    {
        SlideShowSettingsWidget dialog;
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        QCOMPARE(SlideShow().name(), QStringLiteral("Слайд-шоу"));
        QCOMPARE(translated("The image is not found in the catalog or the catalog is not indicated in the settings ..."),
                 QStringLiteral("Изображения не найдены в каталоге, или каталог не указан в настройках ..."));
        QCOMPARE(translated("The path to the directory with images is not specified"), QStringLiteral("Не указан путь к каталогу с изображениями"));
        QCOMPARE(dialog.windowTitle(), QStringLiteral("Настройки слайд-шоу"));
        QCOMPARE(c.directoryGroup->title(), QStringLiteral("Каталог изображений"));
        QCOMPARE(c.directory->text(), QStringLiteral("Выберите каталог изображений..."));
        QCOMPARE(c.open->text(), QStringLiteral("Открыть"));
        QCOMPARE(c.includeSubfolders->text(), QStringLiteral("Включать подпапки"));
        QCOMPARE(c.animationGroup->title(), QStringLiteral("Анимация"));
        QCOMPARE(c.autoSwitchLabel->text(), QStringLiteral("Автосмена изображений"));
        QCOMPARE(c.autoSwitch->suffix(), QStringLiteral(" с"));
        QCOMPARE(c.effectLabel->text(), QStringLiteral("Эффект"));
        QCOMPARE(c.orderLabel->text(), QStringLiteral("Порядок"));
        QCOMPARE(c.positionGroup->title(), QStringLiteral("Положение"));

        // Three boxes since the order of the slides has one of its own; each
        // was found by its Russian texts. Fast, None, Normal, Slow; Center,
        // Crop, Fit, Stretch, Tile (Fit added in its English place); By name,
        // Shuffle: sorted as Russian words they would come out differently.
        QCOMPARE(dialog.findChildren<QComboBox *>().size(), 3);
        const QStringList effects = {QStringLiteral("Быстро"), QStringLiteral("Нет"), QStringLiteral("Обычно"), QStringLiteral("Медленно")};
        const QStringList positions = QStringLiteral("По центру,Обрезать,Вписать,Растянуть,Мозаика").split(QLatin1Char(','));
        const QStringList orders = {QStringLiteral("По имени"), QStringLiteral("Вперемешку")};
        QCOMPARE(itemTexts(c.effect), effects);
        QCOMPARE(itemTexts(c.position), positions);
        QCOMPARE(itemTexts(c.order), orders);
        for (const QStringList &texts : {effects, positions, orders}) {
            QStringList sorted = texts;
            sorted.sort();
            QVERIFY(sorted != texts);
        }
        // The values stay with their items.
        QCOMPARE(c.effect->itemData(1).toInt(), 50);
        QCOMPARE(c.position->itemData(0).toInt(), 3);
        QCOMPARE(c.position->itemData(2).toInt(), 4);
        QCOMPARE(c.order->itemData(1).toInt(), 1);
        QCOMPARE(effectsData().value(QStringLiteral("Slow")).text, QStringLiteral("Медленно"));
        QCOMPARE(positionsData().value(QStringLiteral("Tile")).text, QStringLiteral("Мозаика"));
        QCOMPARE(ordersData().value(QStringLiteral("Shuffle")).text, QStringLiteral("Вперемешку"));
    }
};

QTEST_MAIN(TranslationTest)

#include "translationtest.moc"
