#include "service/screen/DeskCaptureBackend.h"

DeskCaptureBackend::DeskCaptureBackend(QObject* parent)
    : QObject(parent)
{
}

DeskCaptureBackend::~DeskCaptureBackend() = default;

void DeskCaptureBackend::requestSources(bool) {}

void DeskCaptureBackend::shutdown() {}
