// A process that does nothing until it is killed, whatever its name and
// arguments: copied under the name of a daemon, it stands for one in the
// process table.
#include <unistd.h>

int main()
{
    for (;;)
        ::pause();
}
