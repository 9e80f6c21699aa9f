#include "transport/IZRTNotification.h"

namespace ZRT {

IZRTNotification::~IZRTNotification() = default;

} // namespace ZRT
