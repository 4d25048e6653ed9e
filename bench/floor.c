/* bench/floor.c: the floor of the start-up figures: a static program that does nothing. */
int main(void) { return 0; }
