// The process-wide gyroscope handle: the sensor object while a gyroscope runs, null otherwise.
// The tracker only tests it for null; the engine sets it when the gyroscope starts.
#pragma once

class SensorInterface;

extern SensorInterface* pSensorHandle;
