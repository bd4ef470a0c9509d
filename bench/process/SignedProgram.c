/* A program of about 1 MB that does nothing: the signed executable whose
 * signature check the launch benchmark weighs. */
static const volatile unsigned char payload[1 << 20] = {1};

int main(void) { return payload[0] == 1 ? 0 : 1; }
