// The store's files through the real store in a sandbox: "global.json", "app.json", a controller
// object and an effect's file, each as the program reads it. The first byte picks the file, and
// at 0xa4 puts 4 MiB of blanks after the bytes (past the size a settings file may have). What parses
// to an object is read as it stands and never written over; anything else is set aside whole,
// its scope runs on defaults, and nothing is written in its place (global.json gets one change,
// written with all that was read).
#include "FuzzSupport.h"
#include "devices/AbsRGBController.h"
#include "devices/LedLayout.h"
#include "service/config/ConfigurationFile.h"
#include "service/config/ConfigurationManager.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUrl>

#include <cstdlib>

namespace {

const QString kControllerId = QStringLiteral("OV5512:41424344");
const QString kEffectId = QStringLiteral("com.orvanta.singleColor.singleColor1");

QString sandbox;
QString storeDir;

QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Every file under the store's folder, relative to it.
QStringList storeFiles()
{
    QStringList out;
    const QString root = storeDir + QLatin1Char('/');
    for (const QString& folder : QStringList{storeDir, root + "controllers", root + "effects"}) {
        const QDir dir(folder);
        for (const QString& name : dir.entryList(QDir::Files | QDir::Hidden | QDir::System, QDir::Name)) {
            out << dir.filePath(name).mid(root.size());
        }
    }
    return out;
}

void removeSandbox()
{
    QDir(sandbox).removeRecursively();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    QByteArray base = qgetenv("TMPDIR");
    QByteArray folder = (base.isEmpty() ? QByteArray("/tmp") : base) + "/orvanta-fuzz-store-XXXXXX";
    if (!::mkdtemp(folder.data())) {
        std::perror("mkdtemp");
        std::exit(1);
    }
    sandbox = QString::fromLocal8Bit(folder);
    std::atexit(removeSandbox);
    // Fixed by the store when it is first used: the sandbox is its only world.
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(sandbox + "/config"));
    qputenv("XDG_DATA_HOME", QFile::encodeName(sandbox + "/data"));
    fuzzApplication();
    QCoreApplication::setApplicationName(QStringLiteral("orvanta"));
    FuzzLog::install();
    storeDir = ConfigurationManager::instance()->configPath();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (sandbox.isEmpty()) {
        LLVMFuzzerInitialize(nullptr, nullptr);
    }
    FuzzInput input(data, size);
    const uint8_t choice = input.byte();
    QByteArray bytes = input.rest();
    if (choice == 0xa4) {
        bytes.append(QByteArray(int(ConfigurationFile::maxJsonBytes), ' '));
    }
    const QString names[] = {
        QStringLiteral("global.json"),
        QStringLiteral("app.json"),
        QStringLiteral("controllers/") + QUrl::toPercentEncoding(kControllerId) + QStringLiteral(".json"),
        QStringLiteral("effects/") + kEffectId + QStringLiteral(".json"),
    };
    const int scope = choice % 4;
    const QString name = names[scope];

    ConfigurationManager* store = ConfigurationManager::instance();
    store->reset();
    QDir(storeDir).removeRecursively();
    QDir().mkpath(storeDir + QStringLiteral("/controllers"));
    QDir().mkpath(storeDir + QStringLiteral("/effects"));
    {
        QFile file(storeDir + QLatin1Char('/') + name);
        FUZZ_EXPECT(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size(), file.errorString());
    }
    FuzzLog::clear();

    // What the program reads of each file.
    QJsonObject read;
    switch (scope) {
    case 0:
        store->globalValue(QStringLiteral("cleanStartup")).toBool(false);
        store->globalValue(QStringLiteral("deskCaptureMode")).toInt(0);
        store
            ->globalValue(QStringLiteral("lastBinding/") + kControllerId +
                          QStringLiteral("/com.orvanta.colorful"))
            .toString();
        // A change, so that the save below writes the file, with all that was read.
        store->setGlobalValue(QStringLiteral("fuzz-probe"), true);
        break;
    case 1:
        read = store->AppConfigJsonObj();
        read.value(QStringLiteral("language")).toString();
        break;
    case 2: {
        read = store->controllerJsonObj(kControllerId);
        ControlOptions options;
        QString why;
        if (AbsRGBController::readSettings(read, &options, &why)) {
            FUZZ_EXPECT(options.nbLeds <= LedLayout::maxLeds &&
                            uint32_t(options.lines.size()) <= LedLayout::maxLeds,
                        name);
        } else {
            FUZZ_EXPECT(options.nbLeds == 0 && options.lines.isEmpty() && !why.isEmpty(), name);
        }
        break;
    }
    default:
        read = store->effectJsonValue(kEffectId, kControllerId, QString()).toObject();
        store->effectJsonValue(kEffectId, kControllerId, QStringLiteral("color"));
        break;
    }

    QJsonParseError error;
    const QJsonDocument reference = QJsonDocument::fromJson(bytes, &error);
    const bool taken = bytes.size() <= ConfigurationFile::maxJsonBytes &&
                       error.error == QJsonParseError::NoError && reference.isObject();
    const QString what = name + QStringLiteral(": ") + QString::fromUtf8(bytes.left(200).toHex());
    const QStringList before = storeFiles();
    if (taken) {
        const QJsonObject expected =
            scope == 3 ? reference.object().value(kControllerId).toObject() : reference.object();
        FUZZ_EXPECT(scope == 0 || read == expected, what);
        FUZZ_EXPECT(before == QStringList{name} && readAll(storeDir + QLatin1Char('/') + name) == bytes,
                    what);
    } else {
        // Defaults in force, and the bytes kept whole under a name of their own.
        FUZZ_EXPECT(read.isEmpty(), what);
        FUZZ_EXPECT(before.size() == 1 && before.first().startsWith(name + QStringLiteral(".corrupt-")),
                    what);
        FUZZ_EXPECT(readAll(storeDir + QLatin1Char('/') + before.first()) == bytes, what);
        FUZZ_EXPECT(FuzzLog::contains(QStringLiteral("Set aside unreadable file")), what);
    }
    // A save writes nothing that was not changed: the file, or its absence, stays as it was.
    store->save();
    const QStringList after = storeFiles();
    if (scope == 0) {
        // The probe was a change: global.json holds it now, with everything the file had.
        const QJsonObject global = QJsonDocument::fromJson(readAll(storeDir + "/global.json")).object();
        FUZZ_EXPECT(global.value(QStringLiteral("fuzz-probe")) == QJsonValue(true), what);
        if (taken) {
            QJsonObject expected = reference.object();
            expected.insert(QStringLiteral("fuzz-probe"), true);
            FUZZ_EXPECT(global == expected, what);
        } else {
            FUZZ_EXPECT(global.size() == 1, what);
        }
    } else {
        FUZZ_EXPECT(after == before, what);
    }
    // Nothing anywhere else in the sandbox.
    FUZZ_EXPECT(QDir(sandbox).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden) ==
                    QStringList{QStringLiteral("config")},
                what);
    return 0;
}
