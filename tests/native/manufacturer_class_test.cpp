#include "device/manufacturer_class.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using dorwex::ClassifyManufacturer;
using dorwex::Manufacturer;

struct MakerRow {
    std::u16string maker;
    Manufacturer manufacturer;
    bool defaulted;
};

TEST(ClassifyManufacturer, EveryRuleInOrder) {
    const MakerRow rows[] = {
        {u"Apple Inc.", Manufacturer::APPLE, false},
        {u"apple", Manufacturer::APPLE, false},
        // Rule order: Apple wins over the words of later rules.
        {u"Apple Android HP Kingston", Manufacturer::APPLE, false},
        {u"SAMSUNG", Manufacturer::ANDROID, false},
        {u"Samsung Electronics Co., Ltd.", Manufacturer::ANDROID, false},
        {u"Generic Android", Manufacturer::ANDROID, false},
        {u"Samsung HP", Manufacturer::ANDROID, false},
        {u"Nokia", Manufacturer::WINDOWS, false},
        {u"Microsoft Windows Phone", Manufacturer::WINDOWS, false},
        {u"HP Inc.", Manufacturer::WINDOWS, false},
        {u"SHPX", Manufacturer::WINDOWS, false},  // a bare two-letter substring test
        {u"Hewlett-Packard", Manufacturer::ANDROID, true},
        {u"HP Kingston", Manufacturer::WINDOWS, false},
        {u"Kingston", Manufacturer::LOGICALDISK, false},
        {u"APRICORN", Manufacturer::LOGICALDISK, false},
        {u"Imation Corp", Manufacturer::LOGICALDISK, false},
        {u"IronKey", Manufacturer::LOGICALDISK, false},
        {u"Kanguru Solutions", Manufacturer::LOGICALDISK, false},
        {u"DataLocker Inc.", Manufacturer::LOGICALDISK, false},
        {u"DL", Manufacturer::LOGICALDISK, false},
        {u"  dl  ", Manufacturer::LOGICALDISK, false},
        {u"\tDl\r\n", Manufacturer::LOGICALDISK, false},
        {u"\u3000DL\u00A0", Manufacturer::LOGICALDISK, false},
        {u"DLX", Manufacturer::ANDROID, true},
        {u"D L", Manufacturer::ANDROID, true},
        {u"", Manufacturer::ANDROID, true},
        {u"Google", Manufacturer::ANDROID, true},
    };
    for (const MakerRow& row : rows) {
        const dorwex::ManufacturerMatch match = ClassifyManufacturer(row.maker);
        EXPECT_EQ(match.manufacturer, row.manufacturer) << std::string(row.maker.begin(), row.maker.end());
        EXPECT_EQ(match.defaulted, row.defaulted) << std::string(row.maker.begin(), row.maker.end());
    }
}

TEST(ClassifyManufacturer, UpperCasingDoesNotDependOnALocale) {
    // Dotless and dotted i, and non-ASCII letters that upper-case to ASCII in some locales, never
    // create or break a keyword match.
    EXPECT_EQ(ClassifyManufacturer(u"kingston").manufacturer, Manufacturer::LOGICALDISK);
    EXPECT_EQ(ClassifyManufacturer(u"K\u0131ngston").manufacturer, Manufacturer::ANDROID);
    EXPECT_EQ(ClassifyManufacturer(u"\uFF21pple").manufacturer, Manufacturer::ANDROID);  // fullwidth A
}

TEST(ClassifyManufacturer, NonAsciiAndUnpairedSurrogatesAreHarmless) {
    EXPECT_EQ(ClassifyManufacturer(u"\u00C9lectronique \U0001F4F1 Apple").manufacturer, Manufacturer::APPLE);
    const char16_t broken[] = {0xD800, u'H', u'P', 0xDC00};
    EXPECT_EQ(ClassifyManufacturer(std::u16string_view(broken, 4)).manufacturer, Manufacturer::WINDOWS);
}

}  // namespace
