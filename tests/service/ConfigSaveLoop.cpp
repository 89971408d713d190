// Saves every scope of the store over and over, printing "saved <n>" after each round, until killed.
#include "service/config/ConfigurationManager.h"

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
        store->setGlobalValue("round", round);
        store->setGlobalValue("padding", padding);
        store->AppConfigJsonObj().insert("round", round);
        store->AppConfigJsonObj().insert("padding", padding);
        store->controllerJsonObj("OV5512:A1").insert("round", round);
        store->controllerJsonObj("OV5512:A1").insert("padding", padding);
        store->setEffectJsonValue("com.orvanta.test.effect", "OV5512:A1", "round", round);
        store->setEffectJsonValue("com.orvanta.test.effect", "OV5512:A1", "padding", padding);
        store->save();
        std::printf("saved %lld\n", static_cast<long long>(round));
        std::fflush(stdout);
    }
}
