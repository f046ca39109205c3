// SPDX-License-Identifier: Apache-2.0
#include <libkorva.h>

int main()
{
    krv_handle_t *hp = korva_handle_alloc(KRV_ACTIVATION_AMD64);
    const bool named = hp != nullptr && korva_print_define(hp, KRV_DEF_AT, 3) != nullptr;
    korva_handle_release(hp);
    return named ? 0 : 1;
}
