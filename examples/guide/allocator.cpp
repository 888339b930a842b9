// An allocator of the client's own, which counts: what a context takes it gives back, with the size it asked for.
#include <cstdlib>
#include <iostream>
#include <kel.hpp>

struct account_t {
    uint64_t blocks = 0, bytes = 0;
};

static void *take(uint64_t size, void *cb_data)
{
    auto *account = static_cast<account_t *>(cb_data);
    void *block = malloc(size);
    if (block) {
        account->blocks++;
        account->bytes += size;
    }
    return block;
}

static void give_back(void *block, uint64_t size, void *cb_data)
{
    auto *account = static_cast<account_t *>(cb_data);
    free(block);
    account->blocks--;
    account->bytes -= size;
}

int main()
{
    account_t account;
    const kel_init_options_t allocator = {take, give_back, &account};
    {
        const kel::context ctx = kel::open(2, &allocator);
        const kel::queue queue = kel::make_queue(ctx, 1000);
        if (!queue)
            return 1;
        std::cout << "a context and a queue: " << account.blocks << " blocks\n";
    }
    std::cout << "closed: " << account.blocks << " blocks, " << account.bytes << " bytes\n";
}
