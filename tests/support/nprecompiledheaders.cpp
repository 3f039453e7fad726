// Compiled for the headers that all test programs share; see tests/CMakeLists.txt.
int main()
{
    return 0;
}
