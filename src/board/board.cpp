// The board record and its start-up load.
#include "board/board.h"

#include "board/roam_lib.h"

board_info& board()
{
    static board_info info;
    return info;
}

void board_load()
{
    board_info& b = board();
    b.radio_type_val = get_radio_type(b.product_id);
    b.radio_count = b.radio_type_val != 0 ? 3 : 2;
}
