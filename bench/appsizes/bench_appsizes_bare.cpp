// The peer of `kavrel sizes`: the same device requests written directly against
// libimobiledevice, with nothing else around them. One device session; per app a
// house-arrest client, VendContainer, an AFC client on it, the container's root listed,
// the bundle and Documents measured file by file, iTunesMetadata.plist read.
//   bench-appsizes-bare UDID APPID...      prints "appid appsize docsize" per app

#include <libimobiledevice/afc.h>
#include <libimobiledevice/house_arrest.h>
#include <libimobiledevice/libimobiledevice.h>
#include <libimobiledevice/lockdown.h>
#include <plist/plist.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// Kind (1 file, 2 folder, 0 other) and size of one path.
int fileKind(afc_client_t afc, const std::string& path, uint64_t* size)
{
    char** info = nullptr;
    if (afc_get_file_info(afc, path.c_str(), &info) != AFC_E_SUCCESS || !info)
        return -1;
    int kind = 0;
    for (int i = 0; info[i] && info[i + 1]; i += 2) {
        if (!strcmp(info[i], "st_size"))
            *size = strtoull(info[i + 1], nullptr, 10);
        else if (!strcmp(info[i], "st_ifmt"))
            kind = !strcmp(info[i + 1], "S_IFREG") ? 1 : !strcmp(info[i + 1], "S_IFDIR") ? 2 : 0;
    }
    afc_dictionary_free(info);
    return kind;
}

uint64_t treeSize(afc_client_t afc, const std::string& path)
{
    uint64_t size = 0;
    const int kind = fileKind(afc, path, &size);
    if (kind == 1)
        return size;
    if (kind != 2)
        return 0;
    char** names = nullptr;
    if (afc_read_directory(afc, path.c_str(), &names) != AFC_E_SUCCESS || !names)
        return 0;
    uint64_t total = 0;
    for (int i = 0; names[i]; ++i) {
        if (!strcmp(names[i], ".") || !strcmp(names[i], ".."))
            continue;
        const std::string child = path + "/" + names[i];
        uint64_t childSize = 0;
        const int childKind = fileKind(afc, child, &childSize);
        if (childKind == 1)
            total += childSize;
        else if (childKind == 2)
            total += treeSize(afc, child);
    }
    afc_dictionary_free(names);
    return total;
}

std::string appleIdOf(afc_client_t afc, const std::string& path)
{
    uint64_t size = 0;
    if (fileKind(afc, path, &size) != 1 || size == 0)
        return std::string();
    uint64_t handle = 0;
    if (afc_file_open(afc, path.c_str(), AFC_FOPEN_RDONLY, &handle) != AFC_E_SUCCESS)
        return std::string();
    std::string bytes(size, '\0');
    uint64_t got = 0;
    while (got < size) {
        uint32_t n = 0;
        const uint32_t want = static_cast<uint32_t>(std::min<uint64_t>(size - got, 65536));
        if (afc_file_read(afc, handle, &bytes[got], want, &n) != AFC_E_SUCCESS || n == 0)
            break;
        got += n;
    }
    afc_file_close(afc, handle);
    plist_t doc = nullptr;
    if (bytes.compare(0, 6, "bplist") == 0)
        plist_from_bin(bytes.data(), static_cast<uint32_t>(got), &doc);
    else
        plist_from_xml(bytes.data(), static_cast<uint32_t>(got), &doc);
    std::string id;
    if (plist_t node = doc ? plist_dict_get_item(doc, "appleId") : nullptr) {
        char* text = nullptr;
        plist_get_string_val(node, &text);
        id = text ? text : "";
        free(text);
    }
    plist_free(doc);
    return id;
}

void measure(idevice_t device, lockdownd_client_t lockdown, const char* appid)
{
    lockdownd_service_descriptor_t service = nullptr;
    house_arrest_client_t arrest = nullptr;
    if (lockdownd_start_service(lockdown, "com.apple.mobile.house_arrest", &service) !=
            LOCKDOWN_E_SUCCESS ||
        house_arrest_client_new(device, service, &arrest) != HOUSE_ARREST_E_SUCCESS) {
        lockdownd_service_descriptor_free(service);
        printf("%s failed\n", appid);
        return;
    }
    lockdownd_service_descriptor_free(service);
    plist_t answer = nullptr;
    afc_client_t afc = nullptr;
    if (house_arrest_send_command(arrest, "VendContainer", appid) == HOUSE_ARREST_E_SUCCESS &&
        house_arrest_get_result(arrest, &answer) == HOUSE_ARREST_E_SUCCESS &&
        !plist_dict_get_item(answer, "Error") &&
        afc_client_new_from_house_arrest_client(arrest, &afc) == AFC_E_SUCCESS) {
        char** names = nullptr;
        std::string app, docs, meta;
        afc_read_directory(afc, "/", &names);
        for (int i = 0; names && names[i]; ++i) {
            if (!strcmp(names[i], "Documents"))
                docs = names[i];
            else if (strstr(names[i], ".app"))
                app = names[i];
            else if (strstr(names[i], "iTunesMetadata.plist"))
                meta = names[i];
        }
        if (names)
            afc_dictionary_free(names);
        const uint64_t appSize = app.empty() ? 0 : treeSize(afc, app);
        const uint64_t docSize = docs.empty() ? 0 : treeSize(afc, docs);
        const std::string appleId = meta.empty() ? std::string() : appleIdOf(afc, meta);
        printf("%s %llu %llu %s\n", appid, static_cast<unsigned long long>(appSize),
               static_cast<unsigned long long>(docSize), appleId.c_str());
        afc_client_free(afc);
    }
    plist_free(answer);
    house_arrest_client_free(arrest);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        fprintf(stderr, "usage: %s UDID APPID...\n", argv[0]);
        return 2;
    }
    idevice_t device = nullptr;
    lockdownd_client_t lockdown = nullptr;
    if (idevice_new(&device, argv[1]) != IDEVICE_E_SUCCESS ||
        lockdownd_client_new_with_handshake(device, &lockdown, "bench") != LOCKDOWN_E_SUCCESS) {
        fprintf(stderr, "no device %s\n", argv[1]);
        return 1;
    }
    for (int i = 2; i < argc; ++i)
        measure(device, lockdown, argv[i]);
    lockdownd_client_free(lockdown);
    idevice_free(device);
    return 0;
}
