// What the binary gates must refuse: it throws, so it needs the C++ runtime.
int main(int argc, char **) {
    if (argc > 99) throw argc;
    return 0;
}
