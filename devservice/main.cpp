#include <cstdio>

// Placeholder until the service lands.
int main()
{
    std::puts("http://127.0.0.1:0");
    return 0;
}
