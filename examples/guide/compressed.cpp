// A compressed column: a dictionary is trained on it, both go to a file, and a query runs on what was read from there.
#include <cstdio>
#include <iostream>
#include <kel.hpp>
#include <string>
#include <vector>

// What goes to a file: the dictionary's image, the codewords, and how many they are.
struct stored_t {
    std::vector<uint8_t> image, codewords;
    uint64_t count;
};

static stored_t compress(kel_context_t *ctx, const kel_vec_t *plain, size_t plain_bytes)
{
    stored_t stored = {std::vector<uint8_t>(8192), std::vector<uint8_t>(plain_bytes + 2), 0};
    size_t length = plain_bytes, image_length = stored.image.size(); // two bytes stay behind the capacity
    kel_zip_t *trained = nullptr;
    const kel_result_t result = kel_zip(ctx, 0, plain, stored.codewords.data(), &length, &trained);
    if (result.status == KEL_EOVERFLOW)
        (void)kel_zip_free(ctx, trained); // the dictionary has been made all the same
    if (result.status != KEL_SUCCESS)
        return {};
    const kel::codec codec(trained, {ctx});
    if (kel_zip_get_contig(ctx, codec, stored.image.data(), &image_length) != KEL_SUCCESS)
        return {};
    stored.image.resize(image_length);
    stored.codewords.resize(length + 1); // one byte more than the length belongs to the stream
    stored.count = result.count;
    return stored;
}

static bool save(const stored_t &stored, std::FILE *file)
{
    const uint64_t head[] = {stored.image.size(), stored.codewords.size(), stored.count};
    return std::fwrite(head, sizeof head, 1, file) == 1 &&
           std::fwrite(stored.image.data(), stored.image.size(), 1, file) == 1 &&
           std::fwrite(stored.codewords.data(), stored.codewords.size(), 1, file) == 1;
}

constexpr uint64_t rows = 5000;
constexpr uint32_t width = 12;

// How many rows start with PUT? -1 if the file is of no use.
static int64_t query(kel_context_t *ctx, std::FILE *file)
{
    uint64_t head[3];
    if (std::fread(head, sizeof head, 1, file) != 1)
        return -1;
    // An image is used where it is, at a multiple of 16, as long as the codec lives.
    const kel::column image = kel::column::bytes(head[0], 1), codewords = kel::column::bytes(head[1], 1);
    if (!image || !codewords || std::fread(image.vec.data, head[0], 1, file) != 1 ||
        std::fread(codewords.vec.data, head[1], 1, file) != 1)
        return -1;
    kel_zip_t *opened = nullptr;
    if (kel_set_debug(ctx, KEL_DEBUG_ARG | KEL_DEBUG_EXTRA) != KEL_SUCCESS || // an image from elsewhere is tested
        kel_zip_create_contig(ctx, image.vec.data, head[0], &opened) != KEL_SUCCESS)
        return -1;
    const kel::codec codec(opened, {ctx});

    const kel_vec_t column = {.format = KEL_ZIP,
                              .elements = rows,
                              .data = codewords.vec.data,
                              .elem_width = width,
                              .offset = 0,
                              .aux_offset = 0,
                              .aux_width = 0,
                              .aux_data = nullptr,
                              .codec = codec,
                              .codewords = head[2]};
    const kel::column found = kel::column::bits(rows, 1);
    const kel_int_t from = kel::value("PUT"), before = kel::value("PUU");
    const kel_result_t result = kel_scan_range(ctx, 0, &column, found, KEL_GE_AND_LT, &from, &before);
    return result.status == KEL_SUCCESS ? static_cast<int64_t>(result.count) : -1;
}

int main()
{
    kel::column plain = kel::column::texts_of_width(rows, width);
    for (uint64_t i = 0; i < rows; i++)
        if (plain.append((i * i % 7 < 3 ? "GET /item/" : "PUT /cart/") + std::to_string(10 + i % 90)) != KEL_SUCCESS)
            return 1;

    const kel::context ctx = kel::open();
    const stored_t stored = compress(ctx, plain, rows * width);
    std::FILE *file = std::tmpfile();
    if (stored.count == 0 || !file || !save(stored, file))
        return 1;
    std::cout << rows * width << " bytes are stored in " << stored.image.size() + stored.codewords.size() << '\n';

    std::rewind(file);
    std::cout << query(ctx, file) << " of " << rows << " start with PUT\n";
    std::fclose(file);
}
