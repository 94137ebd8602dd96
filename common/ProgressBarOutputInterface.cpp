#include <zel/common/ProgressBarOutputInterface.h>

namespace zel {

ProgressBarOutputInterface::ProgressBarOutputInterface(QObject *parent) : QObject(parent) { }

ProgressBarOutputInterface::~ProgressBarOutputInterface() = default;

void ProgressBarOutputInterface::resetProgress() { }

} // namespace zel
