// Saves every scope of the store over and over, printing "saved <n>" after each round, until it
// is killed. The configuration test kills it at arbitrary moments and checks what is left.
#include "ConfigurationManager.h"

#include <QCoreApplication>
#include <QJsonArray>

#include <cstdio>

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    ConfigurationManager* store = ConfigurationManager::instance();
    // A few kilobytes per file, so that a kill has a fair chance to land inside a write.
    QJsonArray padding;
    for (int i = 0; i < 400; ++i) {
        padding.append(QStringLiteral("padding-%1").arg(i));
    }
    for (qint64 round = 0;; ++round) {
        store->setGlobalValue(QStringLiteral("round"), round);
        store->setGlobalValue(QStringLiteral("padding"), padding);
        store->AppConfigJsonObj().insert(QStringLiteral("round"), round);
        store->controllerJsonObj(QStringLiteral("OV5512:A1")).insert(QStringLiteral("round"), round);
        store->controllerJsonObj(QStringLiteral("OV5512:A1")).insert(QStringLiteral("padding"), padding);
        for (int e = 0; e < 4; ++e) {
            const QString id = QStringLiteral("com.orvanta.test.effect%1").arg(e);
            store->setEffectJsonValue(id, QStringLiteral("OV5512:A1"), QStringLiteral("round"), round);
            store->setEffectJsonValue(id, QStringLiteral("OV5512:A1"), QStringLiteral("padding"), padding);
        }
        store->save();
        std::printf("saved %lld\n", static_cast<long long>(round));
        std::fflush(stdout);
    }
}
