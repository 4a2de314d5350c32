/* xattr FILE NAME VALUE: sets one extended attribute. busybox has no
   setfattr, so the guest that fills HFS+ volumes carries this, linked
   statically. */
#include <stdio.h>
#include <string.h>
#include <sys/xattr.h>

int main(int argc, char **argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: xattr FILE NAME VALUE\n");
        return 2;
    }
    if (setxattr(argv[1], argv[2], argv[3], strlen(argv[3]), 0) != 0) {
        perror(argv[1]);
        return 1;
    }
    return 0;
}
