/* The floor under the host's first open: the least a D-Bus activated
 * service can do to answer Open(s) -> h. Plain C over sd-bus, no C++
 * runtime, no library to load, no sandbox: it takes the name it is given,
 * answers each Open with one end of a new socketpair, and serves until its
 * bus goes. AppServiceHostBench has the same private bus activate it the
 * way it activates quorvendale-apphost.
 *
 * Usage: MinimalAppService BUS_NAME */
#include <stdio.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

static int open_app_service(sd_bus_message* call, void* data, sd_bus_error* error) {
    int ends[2];
    int answered;
    (void)data;
    (void)error;
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return -1;
    answered = sd_bus_reply_method_return(call, "h", ends[1]);
    close(ends[1]);
    close(ends[0]); /* nothing to serve: the open alone is measured */
    return answered;
}

static const sd_bus_vtable host_vtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Open", "s", "h", open_app_service, 0),
    SD_BUS_VTABLE_END,
};

int main(int argc, char** argv) {
    sd_bus* bus = NULL;
    if (argc != 2) {
        fprintf(stderr, "usage: %s BUS_NAME\n", argv[0]);
        return 2;
    }
    if (sd_bus_open_user(&bus) < 0 ||
        sd_bus_add_object_vtable(bus, NULL, "/org/quorvendale/AppServiceHost",
                                 "org.quorvendale.AppServiceHost", host_vtable, NULL) < 0 ||
        sd_bus_request_name(bus, argv[1], 0) < 0) {
        fprintf(stderr, "%s: cannot serve %s on the session bus\n", argv[0], argv[1]);
        return 1;
    }
    for (;;) {
        const int processed = sd_bus_process(bus, NULL);
        if (processed < 0) return 0;
        if (processed == 0 && sd_bus_wait(bus, (uint64_t)-1) < 0) return 0;
    }
}
