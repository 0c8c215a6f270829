#include "sensor/sensor_handle.h"

SensorInterface* pSensorHandle = nullptr;
