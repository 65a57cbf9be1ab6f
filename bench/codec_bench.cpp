// CRC-32, Base64 and the DNS codec compared with those of others.
#include <arpa/nameser.h>
#include <netinet/in.h>
#include <resolv.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

#include "bench.h"
#include "szip/crc32.h"
#include "tessra/base64.h"
#include "tessra/dns.h"

#ifdef BENCH_HAS_zlib
#include <zlib.h>
#endif
#ifdef BENCH_HAS_libdeflate
#include <libdeflate.h>
#endif
#ifdef BENCH_HAS_isal
#include <isa-l/crc.h>
#endif
#ifdef BENCH_HAS_lzma
#include <lzma.h>
#endif
#ifdef BENCH_HAS_openssl
#include <openssl/evp.h>
#endif
#ifdef BENCH_HAS_glib
#include <glib.h>
#endif
#ifdef BENCH_HAS_nettle
#include <nettle/base64.h>
#endif
#ifdef BENCH_HAS_b64
extern "C" {
#include <b64/cdecode.h>
#include <b64/cencode.h>
}
#endif
#ifdef BENCH_HAS_cares
#include <ares.h>
#include <netdb.h>
#endif
#ifdef BENCH_HAS_ldns
#include <ldns/ldns.h>
#endif

namespace bench {

namespace {

struct Data {
    size_t size;
    std::unique_ptr<uint8_t[]> plain;
    std::unique_ptr<uint8_t[]> text;
    size_t text_size;
    std::unique_ptr<uint8_t[]> out;
    size_t room;

    explicit Data(size_t bytes)
        : size(bytes),
          plain(new uint8_t[bytes]),
          text(new uint8_t[bytes * 2 + 8]),
          text_size(bytes * 2 + 8),
          out(new uint8_t[bytes * 2 + 8]),
          room(bytes * 2 + 8) {
        Random random;
        for (size_t n = 0; n < size; ++n) plain[n] = uint8_t(random());
        base64_encode(plain.get(), size, text.get(), &text_size);
    }
    char* chars() const { return reinterpret_cast<char*>(out.get()); }
};

using Work = void (*)(const Data&);

struct Codec {
    const char* peer;
    Work work;
};

void copy(const Data& data) { memcpy(data.out.get(), data.plain.get(), data.size); }

const Codec kCrc[] = {
    {"tessra", [](const Data& d) { keep(tessra::calc_crc32(0, d.plain.get(), d.size)); }},
    {"tessra's tables",
     [](const Data& d) { keep(tessra::crc32_by_tables(~0U, d.plain.get(), d.size)); }},
    {"bare memcpy", copy},
#ifdef BENCH_HAS_zlib
    {"zlib", [](const Data& d) { keep(crc32(0, d.plain.get(), unsigned(d.size))); }},
#endif
#ifdef BENCH_HAS_libdeflate
    {"libdeflate", [](const Data& d) { keep(libdeflate_crc32(0, d.plain.get(), d.size)); }},
#endif
#ifdef BENCH_HAS_isal
    {"ISA-L", [](const Data& d) { keep(crc32_gzip_refl(0, d.plain.get(), d.size)); }},
#endif
#ifdef BENCH_HAS_lzma
    {"liblzma", [](const Data& d) { keep(lzma_crc32(d.plain.get(), d.size, 0)); }},
#endif
};

const Codec kEncode[] = {
    {"tessra",
     [](const Data& d) {
         size_t size = d.room;
         keep(base64_encode(d.plain.get(), d.size, d.out.get(), &size));
     }},
    {"bare memcpy", copy},
#ifdef BENCH_HAS_openssl
    {"OpenSSL",
     [](const Data& d) { keep(EVP_EncodeBlock(d.out.get(), d.plain.get(), int(d.size))); }},
#endif
#ifdef BENCH_HAS_glib
    {"GLib",
     [](const Data& d) {
         int state = 0, save = 0;
         const gsize n =
             g_base64_encode_step(d.plain.get(), d.size, FALSE, d.chars(), &state, &save);
         keep(g_base64_encode_close(FALSE, d.chars() + n, &state, &save));
     }},
#endif
#ifdef BENCH_HAS_nettle
    {"nettle", [](const Data& d) { base64_encode_raw(d.chars(), d.size, d.plain.get()); }},
#endif
#ifdef BENCH_HAS_b64
    {"libb64",
     [](const Data& d) {
         base64_encodestate state;
         base64_init_encodestate(&state);
         const int n = base64_encode_block(reinterpret_cast<const char*>(d.plain.get()),
                                           int(d.size), d.chars(), &state);
         keep(base64_encode_blockend(d.chars() + n, &state));
     }},
#endif
};

const Codec kDecode[] = {
    {"tessra",
     [](const Data& d) {
         size_t size = d.room;
         keep(base64_decode(d.text.get(), d.text_size, d.out.get(), &size));
     }},
    {"bare memcpy", copy},
#ifdef BENCH_HAS_openssl
    {"OpenSSL",
     [](const Data& d) { keep(EVP_DecodeBlock(d.out.get(), d.text.get(), int(d.text_size))); }},
#endif
#ifdef BENCH_HAS_glib
    {"GLib",
     [](const Data& d) {
         int state = 0;
         unsigned save = 0;
         keep(g_base64_decode_step(reinterpret_cast<const char*>(d.text.get()), d.text_size,
                                   d.out.get(), &state, &save));
     }},
#endif
#ifdef BENCH_HAS_nettle
    {"nettle",
     [](const Data& d) {
         base64_decode_ctx context;
         base64_decode_init(&context);
         size_t size = d.room;
         keep(base64_decode_update(&context, &size, d.out.get(), d.text_size,
                                   reinterpret_cast<const char*>(d.text.get())));
     }},
#endif
#ifdef BENCH_HAS_b64
    {"libb64",
     [](const Data& d) {
         base64_decodestate state;
         base64_init_decodestate(&state);
         keep(base64_decode_block(reinterpret_cast<const char*>(d.text.get()), int(d.text_size),
                                  d.chars(), &state));
     }},
#endif
};

// The obvious loop, not optimised.
__attribute__((noinline, optimize("no-tree-vectorize"))) void byte_loop(char* text, size_t size) {
    for (size_t n = 0; n < size; ++n) {
        if (text[n] == '+') {
            text[n] = '-';
        } else if (text[n] == '/') {
            text[n] = '_';
        }
    }
}

void copy_twice(const Data& data) {
    copy(data);
    copy(data);
}

// Converts the text and converts it back, so that each call finds characters to replace.
const Codec kUrlSafe[] = {
    {"tessra",
     [](const Data& d) {
         base64_urlsafe(reinterpret_cast<char*>(d.text.get()), d.text_size);
         base64_unurlsafe(reinterpret_cast<char*>(d.text.get()), d.text_size);
     }},
    {"bare memcpy", copy_twice},
    {"byte loop",
     [](const Data& d) {
         byte_loop(reinterpret_cast<char*>(d.text.get()), d.text_size);
         byte_loop(reinterpret_cast<char*>(d.text.get()), d.text_size);
     }},
};

template <size_t kCount>
void add_codecs(const std::string& row, const Codec (&codecs)[kCount],
                const std::shared_ptr<Data>& data) {
    for (const Codec& codec : codecs) {
        add(row, codec.peer,
            [data, work = codec.work](Loop& loop) { loop.each([&] { work(*data); }); },
            {1, Clock::kCpu, data->size > 100000 ? 1U : 20U});
    }
}

// Adds the whole command of coreutils, which reads the same bytes from a file.
void add_base64_command(const std::string& size, const std::shared_ptr<Data>& data) {
    if (Loop::counting() || !has_program("base64")) return;
    const std::string folder = std::filesystem::temp_directory_path();
    const auto add_one = [&](const char* what, const char* command, const char* file,
                             const uint8_t* bytes, size_t count) {
        std::ofstream(folder + "/" + file, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes), std::streamsize(count));
        add(std::string("Base64, ") + what + " " + size, "base64 as a command",
            [folder, command](Loop& loop) {
                const int out = open("/dev/null", O_WRONLY | O_CLOEXEC);
                while (loop.next()) {
                    loop.took(run_command(command, folder.c_str(), out).seconds);
                }
                close(out);
            },
            {1, Clock::kOwn, 0});
    };
    add_one("encode", "exec base64 -w0 tessra-bench-plain", "tessra-bench-plain", data->plain.get(),
            data->size);
    add_one("decode", "exec base64 -d tessra-bench-text", "tessra-bench-text", data->text.get(),
            data->text_size);
}

// Makes a reply with two aliases and an address. The names are pointers, as name servers pack them.
std::vector<uint8_t> reply() {
    std::vector<uint8_t> message = {0x12, 0x34, 0x81, 0x80, 0, 1, 0, 3, 0, 0, 0, 0};
    const auto put = [&](std::initializer_list<uint8_t> bytes) {
        message.insert(message.end(), bytes);
    };
    put({3, 'w', 'w', 'w', 7, 'e', 'x', 'a', 'm', 'p', 'l', 'e', 3, 'c', 'o', 'm', 0, 0, 1, 0, 1});
    put({0xc0, 12, 0, 5, 0, 1, 0, 0, 1, 0, 0, 5, 2, 'a', '1', 0xc0, 16});
    put({0xc0, 45, 0, 5, 0, 1, 0, 0, 1, 0, 0, 5, 2, 'a', '2', 0xc0, 16});
    put({0xc0, 62, 0, 1, 0, 1, 0, 0, 1, 0, 0, 4, 192, 0, 2, 1});
    return message;
}

struct Dns {
    const char* row;
    const char* peer;
    void (*work)(const std::vector<uint8_t>& message);
};

char kName[] = "www.example.com";

const Dns kDns[] = {
    {"DNS query", "tessra",
     [](const std::vector<uint8_t>&) {
         char request[512];
         keep(dns_build_request(request, kName, 1, 1, 0x1234));
         keep(request);
     }},
    {"DNS query", "libresolv",
     [](const std::vector<uint8_t>&) {
         static struct __res_state state;
         static const int ready = res_ninit(&state);
         keep(ready);
         unsigned char request[512];
         keep(res_nmkquery(&state, QUERY, kName, C_IN, T_A, nullptr, 0, nullptr, request,
                           sizeof request));
     }},
    {"DNS reply", "tessra",
     [](const std::vector<uint8_t>& message) {
         char copy_of[512];
         memcpy(copy_of, message.data(), message.size());  // The parser works in place.
         char* name = nullptr;
         in_addr address;
         if (dns_parse_reply(copy_of, &name, &address) != 1) abort();
         keep(address);
         free(name);
     }},
    {"DNS reply", "libresolv",
     [](const std::vector<uint8_t>& message) {
         ns_msg handle;
         ns_initparse(message.data(), int(message.size()), &handle);
         for (int n = 0; n < ns_msg_count(handle, ns_s_an); ++n) {
             ns_rr record;
             if (ns_parserr(&handle, ns_s_an, n, &record) != 0) abort();
             if (ns_rr_type(record) == T_A) keep(*ns_rr_rdata(record));
         }
     }},
#ifdef BENCH_HAS_cares
    {"DNS query", "c-ares",
     [](const std::vector<uint8_t>&) {
         unsigned char* request;
         int size;
         ares_create_query(kName, C_IN, T_A, 0x1234, 1, &request, &size, 0);
         ares_free_string(request);
     }},
    {"DNS reply", "c-ares",
     [](const std::vector<uint8_t>& message) {
         hostent* host = nullptr;
         if (ares_parse_a_reply(message.data(), int(message.size()), &host, nullptr, nullptr) !=
             0) {
             abort();
         }
         ares_free_hostent(host);
     }},
#endif
#ifdef BENCH_HAS_ldns
    {"DNS query", "ldns",
     [](const std::vector<uint8_t>&) {
         ldns_pkt* packet = ldns_pkt_query_new(ldns_dname_new_frm_str(kName), LDNS_RR_TYPE_A,
                                               LDNS_RR_CLASS_IN, LDNS_RD);
         uint8_t* request;
         size_t size;
         ldns_pkt2wire(&request, packet, &size);
         free(request);
         ldns_pkt_free(packet);
     }},
    {"DNS reply", "ldns",
     [](const std::vector<uint8_t>& message) {
         ldns_pkt* packet;
         if (ldns_wire2pkt(&packet, message.data(), message.size()) != LDNS_STATUS_OK) abort();
         ldns_pkt_free(packet);
     }},
#endif
};

}  // namespace

}  // namespace bench

void register_operations() {
    using namespace bench;
#ifdef BENCH_HAS_cares
    ares_library_init(ARES_LIB_INIT_ALL);
#endif
    const struct {
        const char* name;
        size_t size;
    } sizes[] = {{"32 B", 32}, {"1 KB", 1024}, {"64 KB", 65536}, {"16 MB", 16 << 20}};
    for (const auto& [name, size] : sizes) {
        const auto data = std::make_shared<Data>(size);
        add_codecs(std::string("CRC-32 of ") + name, kCrc, data);
        add_codecs(std::string("Base64, encode ") + name, kEncode, data);
        add_codecs(std::string("Base64, decode ") + name, kDecode, data);
        if (size == sizes[std::size(sizes) - 1].size) add_base64_command(name, data);
        // These operations change the text, so they get data of their own.
        add_codecs(std::string("Base64, URL-safe and back ") + name, kUrlSafe,
                   std::make_shared<Data>(size));
    }
    for (const Dns& dns : kDns) {
        add(dns.row, dns.peer, [&dns](Loop& loop) {
            const std::vector<uint8_t> message = reply();
            loop.each([&] { dns.work(message); });
        });
    }
}
