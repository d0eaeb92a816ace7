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

#include <QComboBox>
#include <QDialogButtonBox>
#include <QFileInfo>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QPushButton>
#include <QSpinBox>
#include <QTest>

#include <clocale>

using namespace Dm::ScreenSaver;
using DialogTest::itemTexts;

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

    void nameIsRussian()
    {
        SlideShow slideShow;
        QCOMPARE(slideShow.name(), QStringLiteral("Слайд-шоу"));
    }

    void dialogTextsAreRussian()
    {
        SlideShowSettingsWidget dialog;
        QCOMPARE(dialog.windowTitle(), QStringLiteral("Настройки слайд-шоу"));

        QStringList groups;
        const QList<QGroupBox *> boxes = dialog.findChildren<QGroupBox *>();
        for (const QGroupBox *box : boxes) {
            groups.append(box->title());
        }
        QCOMPARE(groups, QStringList({QStringLiteral("Каталог изображений"), QStringLiteral("Анимация"), QStringLiteral("Положение")}));

        QCOMPARE(dialog.findChild<QLineEdit *>()->text(), QStringLiteral("Выберите каталог изображений..."));
        QStringList labels;
        const QList<QLabel *> labelWidgets = dialog.findChildren<QLabel *>();
        for (const QLabel *label : labelWidgets) {
            labels.append(label->text());
        }
        QVERIFY(labels.contains(QStringLiteral("Автосмена изображений")));
        QVERIFY(labels.contains(QStringLiteral("Эффект")));
        QCOMPARE(dialog.findChild<QSpinBox *>()->suffix(), QStringLiteral(" с"));

        QStringList buttons;
        const QList<QPushButton *> buttonWidgets = dialog.findChildren<QPushButton *>();
        for (const QPushButton *button : buttonWidgets) {
            buttons.append(button->text());
        }
        QVERIFY2(buttons.contains(QStringLiteral("Открыть")), qPrintable(buttons.join(QLatin1Char(','))));
    }

    void choicesKeepTheOrderOfTheEnglishKeys()
    {
        SlideShowSettingsWidget dialog;
        const QList<QComboBox *> boxes = dialog.findChildren<QComboBox *>();
        QCOMPARE(boxes.size(), 2);
        // Fast, None, Normal, Slow and Center, Crop, Stretch, Tile: sorted as
        // Russian words they would come out differently.
        const QStringList effects = {QStringLiteral("Быстро"), QStringLiteral("Нет"), QStringLiteral("Обычно"), QStringLiteral("Медленно")};
        const QStringList positions = {QStringLiteral("По центру"), QStringLiteral("Обрезать"), QStringLiteral("Растянуть"), QStringLiteral("Мозаика")};
        QCOMPARE(itemTexts(boxes.at(0)), effects);
        QCOMPARE(itemTexts(boxes.at(1)), positions);
        QStringList sortedEffects = effects;
        sortedEffects.sort();
        QVERIFY(sortedEffects != effects);

        QCOMPARE(boxes.at(0)->itemData(1).toInt(), 50);
        QCOMPARE(boxes.at(1)->itemData(0).toInt(), 3);
        QCOMPARE(effectsData().value(QStringLiteral("Slow")).text, QStringLiteral("Медленно"));
        QCOMPARE(positionsData().value(QStringLiteral("Tile")).text, QStringLiteral("Мозаика"));
    }

    void fallbackTextIsRussian()
    {
        QCOMPARE(ki18nd("zav-screensaver_slideshow", "The image is not found in the catalog or the catalog is not indicated in the settings ...").toString(),
                 QStringLiteral("Изображения не найдены в каталоге, или каталог не указан в настройках ..."));
        QCOMPARE(ki18nd("zav-screensaver_slideshow", "The path to the directory with images is not specified").toString(),
                 QStringLiteral("Не указан путь к каталогу с изображениями"));
    }
};

QTEST_MAIN(TranslationTest)

#include "translationtest.moc"
