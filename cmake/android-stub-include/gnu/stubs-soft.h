/* The C library headers used for the check are Debian's armhf (hard-float) ones; Android's
 * armeabi-v7a is softfp, for which glibc's <gnu/stubs.h> asks for this file. It lists
 * functions glibc does not implement; none matters for a compile check. */
