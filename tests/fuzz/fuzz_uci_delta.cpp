#include <uci.h>

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

// The input is a file of staged changes. A package is loaded with them, changed, committed, loaded again and
// reverted. For any input, a change that is staged after them is read, the file that the commit writes can be
// read, and the package can be reverted.

namespace {

void require(bool holds)
{
    if (!holds)
        abort();
}

/** The directories of this process, removed at its end. */
struct Store
{
    Store()
    {
        // In memory: a commit waits for the disk (fsync(2)), which would take most of the time.
        char name[] = "/dev/shm/fuzz_uciXXXXXX";
        require(mkdtemp(name));
        path = name;
        require(mkdir((path + "/save").c_str(), 0755) == 0);
    }

    ~Store()
    {
        unlink((path + "/p").c_str());
        unlink((path + "/save/p").c_str());
        rmdir((path + "/save").c_str());
        rmdir(path.c_str());
    }

    void write(const char* name, const void* data, size_t size) const
    {
        FILE* stream = fopen((path + name).c_str(), "w");
        require(stream && fwrite(data, 1, size, stream) == size && fclose(stream) == 0);
    }

    uci_context* newContext() const
    {
        uci_context* context = uci_alloc_context();
        uci_set_confdir(context, path.c_str());
        uci_set_savedir(context, (path + "/save").c_str());
        return context;
    }

    std::string path;
};

const char package[] = "config t a\n\toption o 1\n\tlist l x\n\tlist l y\nconfig t\nconfig u b\n";

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size)
{
    static const Store store;
    store.write("/p", package, sizeof(package) - 1);
    store.write("/save/p", data, size);

    uci_context* context = store.newContext();
    uci_package* p = nullptr;
    require(uci_load(context, "p", &p) == UCI_OK);
    uci_ptr added = uci_ptr();
    added.p = p;
    added.section = "added";
    added.value = "t";
    require(uci_set(context, &added) == UCI_OK);
    require(uci_save(context, p) == UCI_OK);

    uci_context* other = store.newContext();
    uci_package* read = nullptr;
    require(uci_load(other, "p", &read) == UCI_OK);
    require(uci_lookup_section(other, read, "added") != nullptr);
    uci_free_context(other);

    require(uci_commit(context, &p, false) == UCI_OK);
    uci_free_context(context);

    context = store.newContext();
    uci_ptr place = uci_ptr();
    place.package = "p";
    require(uci_revert(context, &place) == UCI_OK);
    uci_free_context(context);
    return 0;
}
