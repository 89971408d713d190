#pragma once

#include <QByteArray>
#include <QString>
#include <QVector>

#include <cstdint>

// One model's entry of "controler_config/OVController.json", read from the file's bytes: a pure
// function, so that discovery, the tests and the fuzzer share it.
struct ModelDefaults
{
    static ModelDefaults parse(const QByteArray& bytes, const QString& model);

    bool parsed = false;
    QString parseError; // why the bytes are no JSON document, when they are not

    // The layout as LedLayout::read leaves it: in range, or both empty with the value named.
    bool layoutInRange = true;
    QString layoutProblem;
    uint32_t nbLeds = 0;
    QVector<uint32_t> lines;

    QString icon; // picture paths as the file gives them, relative to the program's folder
    QString image;
    float brightness = 0.8f;
};
