/* Sets how a port switches its RS-485 transmitter: RTS is high while it sends, 1 ms longer at both ends.
 *
 *     nbase-example-rs485 <port>
 */

#include <fcntl.h>
#include <linux/serial.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

static int set_rs485(int fd)
{
    struct serial_rs485 rs485;
    memset(&rs485, 0, sizeof(rs485));
    if (ioctl(fd, TIOCGRS485, &rs485) != 0)
        return -1;
    /* One of the two must be set and the other clear; swap them for a transmitter that is enabled by a low RTS. */
    rs485.flags |= SER_RS485_RTS_ON_SEND;
    rs485.flags &= ~(__u32)SER_RS485_RTS_AFTER_SEND;
    rs485.delay_rts_before_send = 1; /* milliseconds */
    rs485.delay_rts_after_send = 1;
    return ioctl(fd, TIOCSRS485, &rs485);
}

int main(int argc, char** argv)
{
    int fd, result;
    if (argc != 2)
        return 2;
    fd = open(argv[1], O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    result = fd < 0 ? -1 : set_rs485(fd);
    if (result != 0)
        perror(argv[1]);
    if (fd >= 0)
        close(fd);
    return result == 0 ? 0 : 1;
}
