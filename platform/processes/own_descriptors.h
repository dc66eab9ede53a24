// The service's own descriptors, inherited ones included.
#ifndef PLATFORM_PROCESSES_OWN_DESCRIPTORS_H
#define PLATFORM_PROCESSES_OWN_DESCRIPTORS_H

// Has the service itself the file of an O_PATH descriptor open, with anything but O_PATH? True also
// when that cannot be told. Holds one descriptor.
bool service_has_open(int path_fd);

#endif
