/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#include "host/screensaverinterface.h"

#include <QMetaMethod>
#include <QSignalSpy>
#include <QTest>

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

class MinimalLoader : public AbstractPluginScreenSaverLoader
{
    Q_OBJECT
    Q_INTERFACES(AbstractPluginScreenSaverLoader)
public:
    AbstractScreenSaver *createScreenSaver(QWidget *parent) const override
    {
        return new MinimalScreenSaver(parent);
    }
};

class MinimalDialog : public AbstractSettingDialog
{
    Q_OBJECT
};
}

class HostInterfaceTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void metacastAnswersTheInterfaceIdentifier()
    {
        MinimalLoader loader;
        QCOMPARE(loader.qt_metacast("zav-screensaver/0.0"), static_cast<void *>(&loader));
        QCOMPARE(loader.qt_metacast("AbstractPluginScreenSaverLoader"), static_cast<void *>(&loader));
        QCOMPARE(qobject_cast<AbstractPluginScreenSaverLoader *>(&loader), &loader);
    }

    void metacastOfAnUnknownNameIsNull()
    {
        MinimalLoader loader;
        QCOMPARE(loader.qt_metacast("NoSuchInterface/1.0"), nullptr);
        QCOMPARE(loader.qt_metacast("zav-screensaver/0.1"), nullptr);
    }

    void metacastOfANullNameIsNull()
    {
        MinimalLoader loader;
        QCOMPARE(loader.qt_metacast(nullptr), nullptr);
    }

    void baseSettingWidgetIsNull()
    {
        QWidget parent;
        MinimalLoader loader;
        AbstractScreenSaver *screenSaver = loader.createScreenSaver(&parent);
        QVERIFY(screenSaver);
        QCOMPARE(screenSaver->parentWidget(), &parent);
        QCOMPARE(screenSaver->settingWidget(), nullptr);
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

    void metacastOfTheScreenSaverAndDialog()
    {
        MinimalScreenSaver screenSaver;
        QCOMPARE(screenSaver.qt_metacast("AbstractScreenSaver"), static_cast<void *>(static_cast<AbstractScreenSaver *>(&screenSaver)));
        MinimalDialog dialog;
        QCOMPARE(dialog.qt_metacast("AbstractSettingDialog"), static_cast<void *>(static_cast<AbstractSettingDialog *>(&dialog)));
        QSignalSpy spy(&dialog, SIGNAL(changed()));
        QVERIFY(spy.isValid());
        Q_EMIT dialog.changed();
        QCOMPARE(spy.count(), 1);
    }

    void interfaceIdentifier()
    {
        QCOMPARE(qobject_interface_iid<AbstractPluginScreenSaverLoader *>(), "zav-screensaver/0.0");
    }

    void lockDefaultPropertyHoldsTwoEntries()
    {
        QCOMPARE(lockDefaultProperty.size(), 2);
        QCOMPARE(lockDefaultProperty.value(QStringLiteral("ShowLock")).userType(), int(QMetaType::QString));
        QCOMPARE(lockDefaultProperty.value(QStringLiteral("ShowLock")).toString(), QStringLiteral("datetime"));
        QCOMPARE(lockDefaultProperty.value(QStringLiteral("LockShowTimeout")).userType(), int(QMetaType::Int));
        QCOMPARE(lockDefaultProperty.value(QStringLiteral("LockShowTimeout")).toInt(), 300);
    }

    void pluginFileNameTemplateNamesAPlugin()
    {
        QCOMPARE(pluginFileNameTemplate, QStringLiteral("libzav-screensaver_%1.so"));
        QCOMPARE(pluginFileNameTemplate.arg(QStringLiteral("slideshow")), QStringLiteral("libzav-screensaver_slideshow.so"));
    }

    void pluginFileNameRegExpPattern()
    {
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
            QCOMPARE(match.captured(1).isEmpty(), name.isEmpty());
        }
    }
};

QTEST_MAIN(HostInterfaceTest)

#include "hostinterfacetest.moc"
