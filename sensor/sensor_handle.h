// The process-wide gyroscope handle: the sensor object while a gyroscope runs, null otherwise.
// Written only by ZOLT_PANO_Initial and ZOLT_PANO_Release; the tracker tests it for null, the
// polling thread and the fusion callback read it.
#pragma once

class SensorInterface;

extern SensorInterface* pSensorHandle;
