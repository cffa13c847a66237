// Linked statically: nothing can be preloaded into it.

int main() {
    return 0;
}
