/* The largest value, group and key the local client carries.
 *
 * The local path sends a value as UTF-16 in one frame of at most 64 MiB, so a
 * value of UTF-8 bytes may take up to twice its size on the way; 31 MiB leaves
 * room for the names and the frame's own fields. A group or a key is one file
 * or folder name in the service's store, which the file system limits to 255
 * bytes. The local client refuses anything larger before it sends a byte. */
#ifndef QUORVENDALE_LIMITS_H
#define QUORVENDALE_LIMITS_H

#define QV_LOCAL_MAX_VALUE_BYTES 32505856u /* 31 MiB */
#define QV_LOCAL_MAX_NAME_BYTES 255u

#endif /* QUORVENDALE_LIMITS_H */
