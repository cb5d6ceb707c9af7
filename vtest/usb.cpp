#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "commands.h"

// Argument-word errors return -1, missing-hub and system-call errors 1:
// scripts have always told the two apart by that.
int main_usb(int argc, char** argv)
{
    if (argc == 2) {
        fputs("Error: Missing command.\n", stderr);
        return -1;
    }
    if (strcmp(argv[2], "reset") != 0) {
        fprintf(stderr, "Error: Unknown USB command '%s'.\n", argv[2]);
        return -1;
    }
    if (argc == 3) {
        fputs("Error: Missing parameter - hub.\n\n", stderr);
        return 1;
    }
    int fd = open(argv[3], O_WRONLY);
    if (fd < 0) {
        perror("Error opening output file");
        return 1;
    }
    printf("Resetting USB device %s\n", argv[3]);
    fflush(stdout);
    if (ioctl(fd, USBDEVFS_RESET, 0) < 0) {
        // The descriptor stays open: the process is ending anyway.
        perror("Error in ioctl");
        return 1;
    }
    puts("Reset successful");
    close(fd);
    return 0;
}
