#include "picture_text.h"

#include <algorithm>

#include <chafa.h>
#include <clocale>
#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace zr::host {
namespace {

struct Unref
{
    void operator()(ChafaTermInfo *info) const { chafa_term_info_unref(info); }
    void operator()(ChafaSymbolMap *map) const { chafa_symbol_map_unref(map); }
    void operator()(ChafaCanvasConfig *config) const { chafa_canvas_config_unref(config); }
    void operator()(ChafaCanvas *canvas) const { chafa_canvas_unref(canvas); }
};
template <typename Object>
using Ptr = std::unique_ptr<Object, Unref>;

/// A cell in pixels; half as wide as high where the terminal does not tell.
struct Cell
{
    int width = 8;
    int height = 16;
};

Cell cellSize()
{
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0 ||
        size.ws_xpixel < size.ws_col || size.ws_ypixel < size.ws_row)
    {
        return {};
    }
    return {size.ws_xpixel / size.ws_col, size.ws_ypixel / size.ws_row};
}

/// Whether the user's locale has more than ASCII.
bool hasBlocks()
{
    locale_t locale = newlocale(LC_CTYPE_MASK, "", nullptr);
    const bool utf8 = locale != nullptr && std::string(nl_langinfo_l(CODESET, locale)) == "UTF-8";
    if (locale != nullptr)
    {
        freelocale(locale);
    }
    return utf8;
}

ChafaTermInfo *detect()
{
    gchar **environment = g_get_environ();
    ChafaTermInfo *info = chafa_term_db_detect(chafa_term_db_get_default(), environment);
    g_strfreev(environment);
    return info;
}

ChafaCanvasMode coloursOf(const ChafaTermInfo *info)
{
    struct Mode
    {
        ChafaTermSeq needs;
        ChafaCanvasMode mode;
    };
    static constexpr Mode modes[] = {{CHAFA_TERM_SEQ_SET_COLOR_FGBG_DIRECT, CHAFA_CANVAS_MODE_TRUECOLOR},
                                     {CHAFA_TERM_SEQ_SET_COLOR_FGBG_256, CHAFA_CANVAS_MODE_INDEXED_240},
                                     {CHAFA_TERM_SEQ_SET_COLOR_FGBG_16, CHAFA_CANVAS_MODE_INDEXED_16}};
    const auto *found = std::find_if(std::begin(modes), std::end(modes), [info](const Mode &mode) {
        return chafa_term_info_have_seq(info, mode.needs) != FALSE;
    });
    return found == std::end(modes) ? CHAFA_CANVAS_MODE_FGBG : found->mode;
}

} // namespace

struct PictureText::Means
{
    Ptr<ChafaTermInfo> terminal{detect()};
    Ptr<ChafaSymbolMap> symbols{chafa_symbol_map_new()};
    ChafaPixelMode mode = CHAFA_PIXEL_MODE_SYMBOLS;
};

PictureText::PictureText()
    : m_means(std::make_unique<Means>())
{
    if (chafa_term_info_have_seq(m_means->terminal.get(), CHAFA_TERM_SEQ_BEGIN_KITTY_IMMEDIATE_IMAGE_V1) != FALSE)
    {
        m_means->mode = CHAFA_PIXEL_MODE_KITTY;
    }
    else if (chafa_term_info_have_seq(m_means->terminal.get(), CHAFA_TERM_SEQ_BEGIN_SIXELS) != FALSE)
    {
        m_means->mode = CHAFA_PIXEL_MODE_SIXELS;
    }
    chafa_symbol_map_add_by_tags(m_means->symbols.get(),
                                 hasBlocks()
                                     ? static_cast<ChafaSymbolTags>(CHAFA_SYMBOL_TAG_HALF | CHAFA_SYMBOL_TAG_SPACE)
                                     : CHAFA_SYMBOL_TAG_ASCII);
}

PictureText::~PictureText() = default;

std::vector<std::string> PictureText::draw(const uint8_t *rgb, uint32_t width, uint32_t height, TerminalSize room)
{
    const Cell cell = cellSize();
    gint columns = static_cast<gint>(room.columns);
    gint rows = static_cast<gint>(room.rows);
    chafa_calc_canvas_geometry(static_cast<gint>(width), static_cast<gint>(height), &columns, &rows,
                               static_cast<gfloat>(cell.width) / static_cast<gfloat>(cell.height), TRUE, FALSE);
    const Ptr<ChafaCanvasConfig> config(chafa_canvas_config_new());
    chafa_canvas_config_set_geometry(config.get(), std::max(columns, 1), std::max(rows, 1));
    chafa_canvas_config_set_cell_geometry(config.get(), cell.width, cell.height);
    chafa_canvas_config_set_pixel_mode(config.get(), m_means->mode);
    chafa_canvas_config_set_canvas_mode(config.get(), coloursOf(m_means->terminal.get()));
    chafa_canvas_config_set_symbol_map(config.get(), m_means->symbols.get());
    chafa_canvas_config_set_work_factor(config.get(), 0.2F);
    const Ptr<ChafaCanvas> canvas(chafa_canvas_new(config.get()));
    chafa_canvas_draw_all_pixels(canvas.get(), CHAFA_PIXEL_RGB8, rgb, static_cast<gint>(width),
                                 static_cast<gint>(height), static_cast<gint>(width * 3));
    GString *printed = chafa_canvas_print(canvas.get(), m_means->terminal.get());
    const std::string text(printed->str, printed->len);
    g_string_free(printed, TRUE);
    return m_means->mode == CHAFA_PIXEL_MODE_SYMBOLS ? linesOf(text) : std::vector<std::string>{text};
}

} // namespace zr::host
