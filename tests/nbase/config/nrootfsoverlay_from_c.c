/* Calls every function of the overlay's backup settings from C, and says what they answer. */

#include <nbase/config/nrootfsoverlay.h>

#include <stdio.h>
#include <stdlib.h>

static void printText(const char* name, const char* text)
{
    printf("%s=%s\n", name, text ? text : "NULL");
}

static void printAllocated(const char* name, char* text)
{
    printText(name, text);
    free(text);
}

int main(void)
{
    bool ok = true;
    const NroBackupConf* const configuration = nroBackupConf();
    if (configuration)
        printf("conf=%d,%d,%s\n", configuration->mmc, configuration->partition, configuration->dir);
    printText("dir", nroBackupDirPath());
    printText("mmc", nroBackupMediaMmcDeviceName());
    printText("media", nroBackupMediaName());
    printText("device", nroBackupMediaDevPath());
    printAllocated("id", nroBackupMediaId());
    printAllocated("auto id", nroAutoBackupMediaId());
    printf("/proc=%d\n", nroPathIsMoutpoint("/proc"));
    printAllocated("mountpoint of overlay", nroFindMountpoint("overlayfs:/rootfsoverlay"));
    printf("overlay=%d\n", nroIsRootfsOverlayMounted());
    printAllocated("mountpoint", nroBackupMediaMountpoint());
    printf("mounted=%d\n", nroIsBackupMediaMounted());
    printf("read-only=%d\n", nroIsBackupMediaReadOnly());
    printf("auto=%d\n", nroIsAutoBackupEnabled());
    printf("restore=%d", nroConvertStringToBootAction("restore", &ok));
    printf(",%d\n", ok);
    printf("can auto=%d\n", nroCanSetAutoBackupEnabled(1));
    printf("can restore=%d\n", nroCanSetBootAction(NRO_BOOT_ACTION_RESTORE));
    printf("set wipe=%d\n", nroSetBootAction(NRO_BOOT_ACTION_WIPE));
    printf("action=%d\n", nroGetBootAction());
    printf("write none=%d\n", nroWriteBootAction(NRO_BOOT_ACTION_NONE));
    printf("write auto=%d\n", nroWriteAutoBackupEnabled(1, "x"));
    printf("set auto=%d\n", nroSetAutoBackupEnabled(1));
    return 0;
}
