/*
 * Result codes of the simulated device libraries beside the vendor codes of
 * aratek_sdk.h and tavio_sdk.h. A scripted result (see sim/README.md) may
 * return any other value.
 */
#ifndef VEXO_SIM_CODES_H
#define VEXO_SIM_CODES_H

#define SIM_ERR_NO_DEVICE (-1)  /* device absent or index other than 0; port not opened */
#define SIM_ERR_BAD_PARAM (-2)  /* null pointer, bad size, mode or record */
#define SIM_ERR_BAD_HANDLE (-3) /* handle not open */
#define SIM_ERR_NO_IMAGE (-4)   /* feature extraction before any capture */
#define SIM_ERR_NOT_INIT (-5)   /* require_global_init set and GlobalInit not called */

#define SIM_DEFAULT_SERIAL "SIM0000001"
#define SIM_DEFAULT_WIDTH 256
#define SIM_DEFAULT_HEIGHT 360
#define SIM_DEFAULT_RESOLUTION 500
#define SIM_DEFAULT_CAPTURE_WAIT_MS 300
#define SIM_DEFAULT_NFIQ 2
#define SIM_DEFAULT_QUALITY 80
#define SIM_DEFAULT_MINUTIAE 40

#define SIM_DEFAULT_TAVIO_BATTERY "85"
#define SIM_DEFAULT_TAVIO_FIRMWARE "TX9-FW-1.0.3"
#define SIM_DEFAULT_TAVIO_SERIAL "TX9SIM000001"
#define SIM_DEFAULT_TAVIO_PRINT "Printed"

#endif /* VEXO_SIM_CODES_H */
