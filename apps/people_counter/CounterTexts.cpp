#include "CounterTexts.h"

#include "Localization.h"

#include <array>
#include <unordered_map>

namespace PeopleCounting {

namespace {

// people, inView, entries, exits, area, entrance, calibrated, floor
using Words = std::array<const char*, 8>;

const std::unordered_map<std::string, Words>& table() {
    static const std::unordered_map<std::string, Words> words = {
        {"en",
         {"People", "In view", "Entries", "Exits", "Area", "Entrance", "Calibrated", "Floor"}},
        {"es",
         {"Personas", "A la vista", "Entradas", "Salidas", "Zona", "Entrada", "Calibrado",
          "Suelo"}},
        {"de",
         {"Personen", "Im Bild", "Eintritte", "Austritte", "Bereich", "Eingang", "Kalibriert",
          "Boden"}},
        {"fr", {"Personnes", "Visibles", "Entrées", "Sorties", "Zone", "Entrée", "Calibré", "Sol"}},
        {"it",
         {"Persone", "In vista", "Entrate", "Uscite", "Area", "Ingresso", "Calibrato", "Suolo"}},
        {"pt",
         {"Pessoas", "Em vista", "Entradas", "Saídas", "Área", "Entrada", "Calibrado", "Chão"}},
        {"nl",
         {"Personen", "In beeld", "Naar binnen", "Naar buiten", "Zone", "Ingang", "Gekalibreerd",
          "Vloer"}},
        {"pl",
         {"Osoby", "W kadrze", "Wejścia", "Wyjścia", "Strefa", "Wejście", "Skalibrowano",
          "Podłoże"}},
        {"cs",
         {"Osoby", "V záběru", "Vstupy", "Výstupy", "Oblast", "Vchod", "Kalibrováno", "Podlaha"}},
        {"sv", {"Personer", "I bild", "In", "Ut", "Område", "Ingång", "Kalibrerad", "Golv"}},
        {"fi",
         {"Henkilöt", "Kuvassa", "Sisään", "Ulos", "Alue", "Sisäänkäynti", "Kalibroitu", "Lattia"}},
        {"ru", {"Люди", "В кадре", "Входы", "Выходы", "Зона", "Вход", "Откалибровано", "Пол"}},
        {"tr",
         {"Kişiler", "Görüntüde", "Girişler", "Çıkışlar", "Alan", "Giriş", "Kalibre edildi",
          "Zemin"}},
        {"ja", {"人数", "画面内", "入場", "退場", "エリア", "入口", "校正済み", "床"}},
        {"ko", {"사람", "화면 내", "입장", "퇴장", "구역", "입구", "보정됨", "바닥"}},
        {"zh", {"人数", "画面中", "进入", "离开", "区域", "入口", "已校准", "地面"}},
        {"zh-TW", {"人數", "畫面中", "進入", "離開", "區域", "入口", "已校準", "地面"}},
        {"th", {"ผู้คน", "ในภาพ", "เข้า", "ออก", "พื้นที่", "ทางเข้า", "ปรับเทียบแล้ว", "พื้น"}},
        {"vi",
         {"Người", "Trong khung", "Vào", "Ra", "Khu vực", "Lối vào", "Đã hiệu chỉnh", "Mặt đất"}},
    };
    return words;
}

int indexOf(const std::string& key) {
    static const std::unordered_map<std::string, int> keys = {
        {"people", 0}, {"inView", 1},   {"entries", 2},    {"exits", 3},
        {"area", 4},   {"entrance", 5}, {"calibrated", 6}, {"floor", 7}};
    const auto found = keys.find(key);
    return found == keys.end() ? -1 : found->second;
}

} // namespace

std::string text(const std::string& key) {
    const int index = indexOf(key);
    if (index < 0) {
        return Ombrel::Localization::getString(key);
    }
    auto found = table().find(Ombrel::Localization::getLanguage());
    if (found == table().end()) {
        found = table().find("en");
    }
    return found->second[static_cast<std::size_t>(index)];
}

} // namespace PeopleCounting
