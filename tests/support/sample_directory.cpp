#include "sample_directory.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>
#include <vector>

namespace tavo::test {
namespace {

/// A name as its owner writes it, and in the letters of a login.
struct Name
{
    const char* native;
    const char* ascii;
};

struct Culture
{
    bool familyNameFirst;
    std::array<Name, 10> given;
    std::array<Name, 10> family;
};

// clang-format off
constexpr std::array cultures{
    Culture{false,
        {{{"Jürgen", "juergen"}, {"Käthe", "kaethe"}, {"Björn", "bjoern"}, {"Anja", "anja"}, {"Günther", "guenther"},
          {"Ulrike", "ulrike"}, {"Sören", "soeren"}, {"Heike", "heike"}, {"Jörg", "joerg"}, {"Lena", "lena"}}},
        {{{"Müller", "mueller"}, {"Weiß", "weiss"}, {"Schröder", "schroeder"}, {"Krämer", "kraemer"}, {"Vogt", "vogt"},
          {"Größl", "groessl"}, {"Jäger", "jaeger"}, {"Köhler", "koehler"}, {"Brandt", "brandt"}, {"Löwe", "loewe"}}}},
    Culture{false,
        {{{"François", "francois"}, {"Hélène", "helene"}, {"Zoé", "zoe"}, {"Noël", "noel"}, {"Anaïs", "anais"},
          {"Jérôme", "jerome"}, {"Maëlle", "maelle"}, {"Étienne", "etienne"}, {"Inès", "ines"}, {"Loïc", "loic"}}},
        {{{"Lefèvre", "lefevre"}, {"Côté", "cote"}, {"D'Aubigné", "daubigne"}, {"Bérénger", "berenger"},
          {"Françoise", "francoise"}, {"Gauthier", "gauthier"}, {"Île", "ile"}, {"Mâcon", "macon"},
          {"Rivière", "riviere"}, {"Saint-Exupère", "saintexupere"}}}},
    Culture{false,
        {{{"José", "jose"}, {"Iñaki", "inaki"}, {"Begoña", "begona"}, {"Ángel", "angel"}, {"Lucía", "lucia"},
          {"Martín", "martin"}, {"Sofía", "sofia"}, {"João", "joao"}, {"Conceição", "conceicao"}, {"Raúl", "raul"}}},
        {{{"Núñez", "nunez"}, {"Gómez", "gomez"}, {"Peña", "pena"}, {"Ibáñez", "ibanez"}, {"Guimarães", "guimaraes"},
          {"Muñoz", "munoz"}, {"Araújo", "araujo"}, {"Ordóñez", "ordonez"}, {"Vélez", "velez"}, {"Güell", "guell"}}}},
    Culture{false,
        {{{"Łukasz", "lukasz"}, {"Zoë", "zoee"}, {"Małgorzata", "malgorzata"}, {"Jiří", "jiri"}, {"Žofie", "zofie"},
          {"Święty", "swiety"}, {"Bożena", "bozena"}, {"Tomáš", "tomas"}, {"Kateřina", "katerina"}, {"Śliwa", "sliwa"}}},
        {{{"Dvořák", "dvorak"}, {"Wójcik", "wojcik"}, {"Šťastný", "stastny"}, {"Kowalczyk", "kowalczyk"},
          {"Żuraw", "zuraw"}, {"Černý", "cerny"}, {"Gałązka", "galazka"}, {"Ðorđević", "djordjevic"},
          {"Őri", "oeri"}, {"Țepeș", "tepes"}}}},
    Culture{false,
        {{{"Ólafur", "olafur"}, {"Þóra", "thora"}, {"Åse", "aase"}, {"Øyvind", "oeyvind"}, {"Çağla", "cagla"},
          {"İbrahim", "ibrahim"}, {"Äänekki", "aanekki"}, {"Guðrún", "gudrun"}, {"Şule", "sule"}, {"Käärt", "kaart"}}},
        {{{"Sigurðsson", "sigurdsson"}, {"Ødegård", "odegaard"}, {"Öztürk", "ozturk"}, {"Mäkinen", "makinen"},
          {"Yıldız", "yildiz"}, {"Þorláksdóttir", "thorlaksdottir"}, {"Ångström", "angstrom"}, {"Gökçe", "gokce"},
          {"Jørgensen", "jorgensen"}, {"Põld", "pold"}}}},
    Culture{false,
        {{{"Анна", "anna"}, {"Дмитрий", "dmitry"}, {"Екатерина", "ekaterina"}, {"Сергей", "sergey"}, {"Ольга", "olga"},
          {"Михаил", "mikhail"}, {"Юлия", "yulia"}, {"Олексій", "oleksiy"}, {"Іван", "ivan"}, {"Ђорђе", "djordje"}}},
        {{{"Иванова", "ivanova"}, {"Петров", "petrov"}, {"Щербакова", "shcherbakova"}, {"Шевченко", "shevchenko"},
          {"Їжак", "yizhak"}, {"Соколов", "sokolov"}, {"Љубичић", "ljubicic"}, {"Фёдорова", "fyodorova"},
          {"Георгиев", "georgiev"}, {"Цветкова", "tsvetkova"}}}},
    Culture{false,
        {{{"Γιώργος", "giorgos"}, {"Ελένη", "eleni"}, {"Νίκος", "nikos"}, {"Μαρία", "maria"}, {"Ιωάννης", "ioannis"},
          {"Σοφία", "sophia"}, {"Χρήστος", "christos"}, {"Αθηνά", "athina"}, {"Ξένια", "xenia"}, {"Ψάλτης", "psaltis"}}},
        {{{"Παπαδόπουλος", "papadopoulos"}, {"Αγγελίδης", "angelidis"}, {"Καραγιάννη", "karagianni"},
          {"Θεοδώρου", "theodorou"}, {"Οικονόμου", "oikonomou"}, {"Ζωγράφου", "zografou"}, {"Βλάχος", "vlachos"},
          {"Σαμαράς", "samaras"}, {"Φωτιάδης", "fotiadis"}, {"Δημητρίου", "dimitriou"}}}},
    Culture{true,
        {{{"伟", "wei"}, {"芳", "fang"}, {"娜", "na"}, {"秀英", "xiuying"}, {"敏", "min"}, {"静", "jing"}, {"磊", "lei"},
          {"軍", "jun"}, {"洋", "yang"}, {"艳", "yan"}}},
        {{{"王", "wang"}, {"李", "li"}, {"張", "zhang"}, {"刘", "liu"}, {"陈", "chen"}, {"楊", "yang"}, {"赵", "zhao"},
          {"黃", "huang"}, {"周", "zhou"}, {"吳", "wu"}}}},
    Culture{true,
        {{{"さくら", "sakura"}, {"健太", "kenta"}, {"ユキ", "yuki"}, {"陽菜", "hina"}, {"大輔", "daisuke"},
          {"めぐみ", "megumi"}, {"翔", "sho"}, {"ケンジ", "kenji"}, {"直美", "naomi"}, {"あおい", "aoi"}}},
        {{{"佐藤", "sato"}, {"鈴木", "suzuki"}, {"高橋", "takahashi"}, {"田中", "tanaka"}, {"渡邉", "watanabe"},
          {"伊藤", "ito"}, {"山本", "yamamoto"}, {"中村", "nakamura"}, {"小林", "kobayashi"}, {"齋藤", "saito"}}}},
    Culture{true,
        {{{"민준", "minjun"}, {"서연", "seoyeon"}, {"지우", "jiwoo"}, {"하은", "haeun"}, {"도윤", "doyun"},
          {"수빈", "subin"}, {"예준", "yejun"}, {"지민", "jimin"}, {"현우", "hyunwoo"}, {"유나", "yuna"}}},
        {{{"김", "kim"}, {"이", "lee"}, {"박", "park"}, {"최", "choi"}, {"정", "jung"}, {"강", "kang"}, {"조", "cho"},
          {"윤", "yoon"}, {"장", "jang"}, {"임", "lim"}}}},
    Culture{false,
        {{{"محمد", "mohammed"}, {"فاطمة", "fatima"}, {"علي", "ali"}, {"عائشة", "aisha"}, {"يوسف", "yusuf"},
          {"مريم", "maryam"}, {"عمر", "omar"}, {"ليلى", "layla"}, {"حسن", "hassan"}, {"زهراء", "zahra"}}},
        {{{"الخطيب", "alkhatib"}, {"حداد", "haddad"}, {"النجار", "alnajjar"}, {"منصور", "mansour"},
          {"البغدادي", "albaghdadi"}, {"سليمان", "suleiman"}, {"درويش", "darwish"}, {"قاسم", "qasim"},
          {"المصري", "almasri"}, {"شاهین", "shahin"}}}},
    Culture{false,
        {{{"דוד", "david"}, {"שרה", "sarah"}, {"יעל", "yael"}, {"משה", "moshe"}, {"רחל", "rachel"}, {"נועם", "noam"},
          {"תמר", "tamar"}, {"איתן", "eitan"}, {"מיכל", "michal"}, {"אורי", "uri"}}},
        {{{"כהן", "cohen"}, {"לוי", "levi"}, {"מזרחי", "mizrahi"}, {"פרץ", "peretz"}, {"ביטון", "biton"},
          {"דהן", "dahan"}, {"אברהם", "avraham"}, {"פרידמן", "friedman"}, {"שפירא", "shapira"}, {"גולן", "golan"}}}},
    Culture{false,
        {{{"आरव", "aarav"}, {"प्रिया", "priya"}, {"विक्रम", "vikram"}, {"अनन्या", "ananya"}, {"राहुल", "rahul"},
          {"दीपिका", "deepika"}, {"कृष्ण", "krishna"}, {"मीरा", "meera"}, {"अर्जुन", "arjun"}, {"संध्या", "sandhya"}}},
        {{{"शर्मा", "sharma"}, {"पटेल", "patel"}, {"गुप्ता", "gupta"}, {"सिंह", "singh"}, {"राव", "rao"},
          {"कुलकर्णी", "kulkarni"}, {"मिश्रा", "mishra"}, {"चौधरी", "chaudhary"}, {"जोशी", "joshi"}, {"त्रिपाठी", "tripathi"}}}},
    Culture{false,
        {{{"สมชาย", "somchai"}, {"Nguyễn", "nguyen"}, {"Tuấn", "tuan"}, {"ნინო", "nino"}, {"Արամ", "aram"},
          {"Abebe", "abebe"}, {"አበባ", "ababa"}, {"Siobhán", "siobhan"}, {"Llŷr", "llyr"}, {"Ọlábísí", "olabisi"}}},
        {{{"ใจดี", "jaidee"}, {"Trần", "tran"}, {"Đặng", "dang"}, {"ბერიძე", "beridze"}, {"Հակոբյան", "hakobyan"},
          {"O'Brien", "obrien"}, {"ተስፋዬ", "tesfaye"}, {"Ó Súilleabháin", "osuilleabhain"}, {"Tŷ-Nant", "tynant"},
          {"Adébáyọ̀", "adebayo"}}}},
};

constexpr std::array departments{"Engineering", "Research", "Finance", "Human Resources", "Legal", "Marketing",
    "Operations", "Procurement", "Quality", "Security", "Support", "Facilities"};
constexpr std::array locations{"Zürich", "München", "Kraków", "São Paulo", "Reykjavík", "Москва", "Αθήνα", "東京",
    "北京", "서울", "القاهرة", "תל אביב", "दिल्ली"};
// clang-format on

struct Person
{
    std::string dn;
    std::string name;
    std::string given;
    std::string family;
    std::string login;
    std::string mail;
};

std::string base64(const std::string& text)
{
    std::string result((text.size() + 2) / 3 * 4 + 1, '\0');
    const int size = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(result.data()),
        reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
    result.resize(static_cast<size_t>(size));
    return result;
}

bool isPlain(const std::string& value)
{
    const auto isAscii = [](char c) { return c >= ' ' && c <= '~'; };
    return std::all_of(value.begin(), value.end(), isAscii) && !value.starts_with(' ') &&
           !value.ends_with(' ') && !value.starts_with(':') && !value.starts_with('<');
}

/// One line of LDIF.
std::string line(const std::string& attribute, const std::string& value)
{
    return isPlain(value) ? attribute + ": " + value + "\n" : attribute + ":: " + base64(value) + "\n";
}

std::string escaped(const std::string& rdnValue)
{
    std::string result;
    for (const char c : rdnValue) {
        if (std::string_view(",+\"\\<>;=").find(c) != std::string_view::npos)
            result += '\\';
        result += c;
    }
    return result;
}

/// `example.test` for `dc=example,dc=test`.
std::string domainOf(const std::string& suffix)
{
    std::string result;
    for (size_t begin = 0; begin < suffix.size();) {
        const size_t end = std::min(suffix.find(',', begin), suffix.size());
        const std::string value =
            suffix.substr(suffix.find('=', begin) + 1, end - suffix.find('=', begin) - 1);
        result += (result.empty() ? "" : ".") + value;
        begin = end + 1;
    }
    return result;
}

class Organisation
{
public:
    explicit Organisation(const SampleDirectoryOptions& options)
        : m_options(options)
        , m_domain(domainOf(options.suffix))
    {}

    SampleDirectory make()
    {
        addUnit("people");
        addUnit("groups");
        for (int index = 0; index < m_options.people; ++index)
            addPerson(index);
        addGroups();
        return std::move(m_result);
    }

private:
    void addUnit(const std::string& name)
    {
        m_result.ldif += "dn: ou=" + name + "," + m_options.suffix +
                         "\nobjectClass: organizationalUnit\nou: " + name + "\n\n";
    }

    /// Walks through all pairs of names of all cultures before it gives one out again with a number.
    Person person(size_t index)
    {
        const Culture& culture = cultures.at(index % cultures.size());
        const size_t pair = index / cultures.size();
        const Name& given = culture.given.at(pair % 10);
        const Name& family = culture.family.at((pair / 10 + pair) % 10);
        const size_t round = pair / 100;
        const std::string number = round == 0 ? "" : std::to_string(round + 1);
        Person result;
        result.given = given.native;
        result.family = family.native;
        result.name =
            culture.familyNameFirst ? result.family + " " + result.given : result.given + " " + result.family;
        const std::string distinct = result.name + (number.empty() ? "" : " " + number);
        result.dn = "cn=" + escaped(distinct) + ",ou=people," + m_options.suffix;
        result.name = distinct;
        result.login = std::string(given.ascii) + "." + family.ascii + number;
        result.mail = result.login + "@" + m_domain;
        return result;
    }

    void addPerson(int index)
    {
        Person person = this->person(static_cast<size_t>(index));
        const bool hasLogin = index % 29 != 7;
        const bool hasMail = index % 17 != 3;
        // Old Unix accounts have their full name in another attribute than the rest.
        const bool isUnixAccount = hasLogin && index % 11 == 5;
        if (index % 13 == 0)
            person.mail.front() =
                static_cast<char>(std::toupper(static_cast<unsigned char>(person.mail.front())));

        std::string& ldif = m_result.ldif;
        ldif += line("dn", person.dn) + "objectClass: inetOrgPerson\n";
        ldif += line("cn", person.name) + line("sn", person.family) + line("givenName", person.given);
        if (hasLogin)
            ldif += line("uid", person.login) + line("userPassword", person.login);
        if (hasMail)
            ldif += line("mail", person.mail);
        if (isUnixAccount) {
            const std::string id = std::to_string(10000 + index);
            ldif += "objectClass: posixAccount\nuidNumber: " + id + "\ngidNumber: 100\n";
            ldif += line("homeDirectory", "/home/" + person.login) + line("gecos", person.login);
        } else {
            ldif += line("displayName", person.name);
        }
        ldif += "employeeNumber: " + std::to_string(index + 1) + "\n\n";

        ++m_result.people;
        m_result.peopleWithLogin += hasLogin ? 1 : 0;
        m_result.peopleWithMail += hasMail ? 1 : 0;
        m_everybody.push_back(person.dn);
    }

    std::vector<std::string> everyNth(size_t first, size_t step) const
    {
        std::vector<std::string> result;
        for (size_t index = first; index < m_everybody.size(); index += step)
            result.push_back(m_everybody.at(index));
        return result;
    }

    std::string addGroup(const std::string& name, const std::vector<std::string>& members)
    {
        const std::string dn = "cn=" + escaped(name) + ",ou=groups," + m_options.suffix;
        m_result.ldif += line("dn", dn) + "objectClass: groupOfNames\n" + line("cn", name);
        for (const std::string& member : members)
            m_result.ldif += line("member", member);
        m_result.ldif += "\n";
        ++m_result.groups;
        return dn;
    }

    void addGroups()
    {
        addGroup("All staff", m_everybody);
        addGroup("Newcomers", {});
        addGroup("Sales, EMEA", everyNth(1, 23));
        std::vector<std::string> departmentGroups;
        for (size_t index = 0; index < departments.size(); ++index)
            departmentGroups.push_back(addGroup(departments.at(index), everyNth(index, departments.size())));
        for (size_t index = 0; index < locations.size(); ++index)
            addGroup(locations.at(index), everyNth(index, locations.size()));
        // A group may be a member of another.
        addGroup("Departments", departmentGroups);
        for (int number = 1; m_result.groups < m_options.groups; ++number)
            addGroup("Project " + std::to_string(number), everyNth(static_cast<size_t>(number), 60));
    }

    const SampleDirectoryOptions m_options;
    const std::string m_domain;
    SampleDirectory m_result;
    std::vector<std::string> m_everybody;
};

} // namespace

SampleDirectory sampleDirectory(const SampleDirectoryOptions& options)
{
    return Organisation(options).make();
}

} // namespace tavo::test
