/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#include "settings/slideshowsettingswidget.h"
#include "settings/slideshowsettingswidget_p.h"

#include "plugin/slideshowconstants.h"

#include <KLocalizedString>

#include <QCheckBox>
#include <QComboBox>
#include <QDebug>
#include <QDialogButtonBox>
#include <QDir>
#include <QFileDialog>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QIcon>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QSpinBox>
#include <QVBoxLayout>

namespace Dm
{
namespace ScreenSaver
{
namespace
{
// Translated when used, with the English text as the message identifier.
QString translated(const char *text)
{
    return ki18nd(ZAV_SLIDESHOW_TRANSLATION_DOMAIN, text).toString();
}

const QString imageDirectoryKey = QStringLiteral("ImageDirectory");
const QString autoSwitchKey = QStringLiteral("AutoSwitch");
const QString effectKey = QStringLiteral("Effect");
const QString positionKey = QStringLiteral("Position");
const QString includeSubfoldersKey = QStringLiteral("IncludeSubfolders");
const QString orderKey = QStringLiteral("Order");
}

QMap<QString, Data> effectsData()
{
    // "None" is a near-instant fade of 50 ms, not 0.
    return {
        {QStringLiteral("Fast"), Data{translated("Fast"), 500}},
        {QStringLiteral("Normal"), Data{translated("Normal"), 2500}},
        {QStringLiteral("Slow"), Data{translated("Slow"), 5000}},
        {QStringLiteral("None"), Data{translated("None"), 50}},
    };
}

QMap<QString, Data> positionsData()
{
    return {
        {QStringLiteral("Stretch"), Data{translated("Stretch"), 0}},
        {QStringLiteral("Crop"), Data{translated("Crop"), 1}},
        {QStringLiteral("Tile"), Data{translated("Tile"), 2}},
        {QStringLiteral("Center"), Data{translated("Center"), 3}},
        {QStringLiteral("Fit"), Data{translated("Fit"), 4}},
    };
}

QMap<QString, Data> ordersData()
{
    return {
        {QStringLiteral("By name"), Data{translated("By name"), 0}},
        {QStringLiteral("Shuffle"), Data{translated("Shuffle"), 1}},
    };
}

QComboBox *SlideShowSettingsWidget::Private::fillComboBox(QComboBox *&box, const QMap<QString, Data> &table)
{
    if (box) {
        // The same text for both boxes; it is kept as it is.
        qWarning() << "alignmentComboBox is already";
        return box;
    }
    // No parent: the layout that receives the box adopts it.
    box = new QComboBox;
    const QList<Data> items = table.values();
    for (const Data &item : items) {
        box->insertItem(box->count(), QIcon(), item.text, QVariant(int(item.value)));
    }
    return box;
}

QComboBox *SlideShowSettingsWidget::Private::initEffectsCheckBox()
{
    return fillComboBox(effectComboBox, effectsData());
}

QComboBox *SlideShowSettingsWidget::Private::initPositionsCheckBox()
{
    return fillComboBox(alignmentComboBox, positionsData());
}

QComboBox *SlideShowSettingsWidget::Private::initOrdersCheckBox()
{
    return fillComboBox(orderComboBox, ordersData());
}

SlideShowSettingsWidget::SlideShowSettingsWidget(QWidget *parent)
    : AbstractSettingDialog(parent)
    , d(new Private)
{
    setWindowTitle(translated("Settings Slide show"));
    setMinimumSize(460, 210);

    auto *mainLayout = new QVBoxLayout(this);

    auto *directoryGroup = new QGroupBox(translated("Image Directory"), this);
    auto *directoryGroupLayout = new QVBoxLayout(directoryGroup);
    auto *directoryRow = new QHBoxLayout;
    // Real text, not a placeholder, until a settings map is loaded.
    d->directoryLineEdit = new QLineEdit(directoryGroup);
    d->directoryLineEdit->setText(translated("Select image directory..."));
    d->openButton = new QPushButton(translated("Open"), directoryGroup);
    directoryRow->addWidget(d->directoryLineEdit);
    directoryRow->addWidget(d->openButton);
    directoryRow->setStretch(0, 6);
    directoryRow->setStretch(1, 1);
    directoryGroupLayout->addLayout(directoryRow);
    d->includeSubfoldersCheckBox = new QCheckBox(translated("Include subfolders"), directoryGroup);
    directoryGroupLayout->addWidget(d->includeSubfoldersCheckBox);
    mainLayout->addWidget(directoryGroup);

    auto *animationGroup = new QGroupBox(translated("Animation"), this);
    auto *animationLayout = new QGridLayout(animationGroup);
    d->autoSwitchLabel = new QLabel(translated("Auto-Switch Images"), animationGroup);
    animationLayout->addWidget(d->autoSwitchLabel, 0, 0, 1, 1);
    d->autoSwitchSpinBox = new QSpinBox(animationGroup);
    d->autoSwitchSpinBox->setSuffix(translated(" sec"));
    d->autoSwitchSpinBox->setMinimum(1);
    d->autoSwitchSpinBox->setMaximum(120);
    animationLayout->addWidget(d->autoSwitchSpinBox, 0, 1, 1, 1);
    d->effectLabel = new QLabel(translated("Effect"), animationGroup);
    animationLayout->addWidget(d->effectLabel, 1, 0, 1, 1);
    animationLayout->addWidget(d->initEffectsCheckBox(), 1, 1, 1, 1);
    d->orderLabel = new QLabel(translated("Order"), animationGroup);
    animationLayout->addWidget(d->orderLabel, 2, 0, 1, 1);
    animationLayout->addWidget(d->initOrdersCheckBox(), 2, 1, 1, 1);
    animationLayout->setColumnStretch(6, 0);
    mainLayout->addWidget(animationGroup);

    auto *positionGroup = new QGroupBox(translated("Position"), this);
    auto *positionLayout = new QVBoxLayout(positionGroup);
    positionLayout->addWidget(d->initPositionsCheckBox());
    mainLayout->addWidget(positionGroup);

    auto *buttonBox = new QDialogButtonBox(this);
    buttonBox->setObjectName(QStringLiteral("buttonBox"));
    buttonBox->setOrientation(Qt::Horizontal);
    buttonBox->setStandardButtons(QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
    mainLayout->addWidget(buttonBox);

    // Made after the controls were filled, so their initial text, state and
    // first items never reach editedProperty.
    connect(buttonBox, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttonBox, &QDialogButtonBox::rejected, this, &QDialog::reject);
    connect(d->openButton, &QPushButton::clicked, this, &SlideShowSettingsWidget::selectImageDirectory);
    connect(d->directoryLineEdit, &QLineEdit::textChanged, this, [this](const QString &text) {
        d->editedProperty[imageDirectoryKey] = text;
    });
    connect(
        d->includeSubfoldersCheckBox,
        &QCheckBox::toggled,
        d->includeSubfoldersCheckBox,
        [this](bool checked) {
            d->editedProperty[includeSubfoldersKey] = checked;
        },
        Qt::DirectConnection);
    connect(
        d->autoSwitchSpinBox,
        QOverload<int>::of(&QSpinBox::valueChanged),
        d->autoSwitchSpinBox,
        [this](int value) {
            d->editedProperty[autoSwitchKey] = value;
        },
        Qt::DirectConnection);
    connect(
        d->effectComboBox,
        QOverload<int>::of(&QComboBox::currentIndexChanged),
        d->effectComboBox,
        [this](int) {
            d->editedProperty[effectKey] = d->effectComboBox->currentData(Qt::UserRole);
        },
        Qt::DirectConnection);
    connect(
        d->orderComboBox,
        QOverload<int>::of(&QComboBox::currentIndexChanged),
        d->orderComboBox,
        [this](int) {
            d->editedProperty[orderKey] = d->orderComboBox->currentData(Qt::UserRole);
        },
        Qt::DirectConnection);
    connect(
        d->alignmentComboBox,
        QOverload<int>::of(&QComboBox::currentIndexChanged),
        d->alignmentComboBox,
        [this](int) {
            d->editedProperty[positionKey] = d->alignmentComboBox->currentData(Qt::UserRole);
        },
        Qt::DirectConnection);
}

SlideShowSettingsWidget::~SlideShowSettingsWidget() = default;

void SlideShowSettingsWidget::setSilentProperty(QMap<QString, QVariant> property)
{
    qCDebug(slideShowLog) << "SlideShow Widget set property:" << property;
    d->savedProperty = property;

    // The controls' handlers run as the values are set; editedProperty is
    // replaced wholesale at the end, so it ends up equal to the given map,
    // including values that match no choice and keys without a control.
    d->directoryLineEdit->setText(d->savedProperty.value(imageDirectoryKey).toString());
    d->includeSubfoldersCheckBox->setChecked(d->savedProperty.value(includeSubfoldersKey).toBool());
    d->autoSwitchSpinBox->setValue(d->savedProperty.value(autoSwitchKey).toInt());

    const int effect = d->savedProperty.value(effectKey).toInt();
    for (const Data &item : effectsData()) {
        if (item.value == effect) {
            d->effectComboBox->setCurrentText(item.text);
            break;
        }
    }
    const int order = d->savedProperty.value(orderKey).toInt();
    for (const Data &item : ordersData()) {
        if (item.value == order) {
            d->orderComboBox->setCurrentText(item.text);
            break;
        }
    }
    const int position = d->savedProperty.value(positionKey).toInt();
    for (const Data &item : positionsData()) {
        if (item.value == position) {
            d->alignmentComboBox->setCurrentText(item.text);
            break;
        }
    }

    d->editedProperty = d->savedProperty;
}

void SlideShowSettingsWidget::setProperty(QMap<QString, QVariant> property)
{
    setSilentProperty(property);
    Q_EMIT changed();
}

const QMap<QString, QVariant> &SlideShowSettingsWidget::property() const
{
    return d->editedProperty;
}

void SlideShowSettingsWidget::selectImageDirectory()
{
    // The start is the saved directory, not what is typed in the line edit.
    QString start = d->savedProperty[imageDirectoryKey].toString();
    if (!QDir(start).exists()) {
        start = QStringLiteral("/home");
    }
    const QString dir =
        QFileDialog::getExistingDirectory(this, translated("Open Directory"), start, QFileDialog::ShowDirsOnly | QFileDialog::DontResolveSymlinks);
    if (dir.isEmpty()) {
        return;
    }
    d->directoryLineEdit->setText(dir);
    d->directoryLineEdit->setToolTip(dir);
    // Into the saved map too: Cancel keeps a picked directory, and picking
    // one does not by itself count as a change on OK.
    d->savedProperty[imageDirectoryKey] = dir;
}

void SlideShowSettingsWidget::accept()
{
    // Only the saved map counts: a typed path does not satisfy this, a
    // directory picked with Open or loaded does.
    const QString dir = d->savedProperty[imageDirectoryKey].toString();
    if (dir.isEmpty()) {
        QMessageBox::critical(this,
                              translated("Error"),
                              translated("The path to the directory with images is not specified"),
                              QMessageBox::Ok,
                              QMessageBox::NoButton);
        return;
    }

    // Keys that exist only in editedProperty are not looked at.
    bool edited = false;
    for (auto it = d->savedProperty.cbegin(); it != d->savedProperty.cend(); ++it) {
        if (d->editedProperty[it.key()] != it.value()) {
            edited = true;
        }
    }
    QDialog::accept();
    if (edited) {
        Q_EMIT changed();
    }
}

void SlideShowSettingsWidget::reject()
{
    setSilentProperty(QMap<QString, QVariant>(d->savedProperty));
    QDialog::reject();
}
}
}
