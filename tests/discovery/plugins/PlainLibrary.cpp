// A shared library without plug-in metadata: the device manager must skip it.
extern "C" int orvantaPlainLibraryAnswer()
{
    return 42;
}
