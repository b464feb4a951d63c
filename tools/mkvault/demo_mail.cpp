#include <array>
#include <string>

#include "tools/mkvault/demo.h"

namespace mkvault {
namespace {

using vault::FileTime;
using vault::FolderBuilder;
using vault::MessageBuilder;

constexpr const char kMe[] = "Jane Miller", kMyAddress[] = "jane.miller@example.com";

struct Mail {
  const char* subject;
  const char* name;
  const char* email;
  std::array<int, 5> when;  // year, month, day, hour, minute
  const char* body;
};

// An incoming plain mail; the caller adds what is special about it.
MessageBuilder& Add(FolderBuilder& folder, const Mail& mail) {
  const auto& [year, month, day, hour, minute] = mail.when;
  const auto u = [](int n) { return static_cast<unsigned>(n); };
  const std::int64_t sent = FileTime(year, u(month), u(day), u(hour), u(minute));
  MessageBuilder& message = folder.AddMessage("IPM.Note");
  message.Subject(mail.subject).From(mail.name, mail.email).To(kMe, kMyAddress).SubmitTime(sent);
  message.DeliveryTime(sent + 40 * 10'000'000LL)
      .Text(0x1035, std::string("<").append(std::to_string(sent)).append("@mail.example.com>"));
  if (mail.body) message.Body(mail.body);
  return message;
}

constexpr Mail kInbox[] = {
    {"Invoice 2024-117 for March",
     "Peter Smith",
     "peter.smith@example.com",
     {2024, 4, 2, 8, 15},
     "Dear Jane,\r\n\r\nplease find attached invoice 2024-117 for the consulting days in March. The amount is due "
     "within "
     "thirty days.\r\n\r\nKind regards\r\nPeter Smith\r\nSmith & Partners\r\n"},
    {"RE: Invoice 2024-117 for March",
     "Laura Bennett",
     "laura.bennett@example.org",
     {2024, 4, 3, 13, 2},
     "Jane, the invoice is approved. I have booked it on the travel budget, please check that the order number is "
     "right.\r\n\r\nLaura\r\n"},
    {"Minutes of the steering committee",
     "Peter Smith",
     "peter.smith@example.com",
     {2024, 4, 9, 16, 45},
     "All,\r\n\r\nthe committee agreed on three points:\r\n1. The warehouse in Leeds stays open until autumn.\r\n"
     "2. The new label printers are ordered.\r\n3. Anna prepares a forecast for the second half of the year.\r\n"},
    {"FW: Broken link on the help page",
     "Support Desk",
     "support@example.net",
     {2024, 5, 14, 9, 30},
     "A customer writes that the link to the manual leads nowhere. Could somebody repair it before the weekend?\r\n"},
    {"Lunch on Thursday?",
     "Anna Lindqvist",
     "anna.lindqvist@example.org",
     {2024, 5, 15, 10, 5},
     "There is a new place behind the station, they have pancakes. Twelve o'clock?\r\n\r\nAnna\r\n"},
    {"Passwords expire next week",
     "IT Service",
     "it-service@example.com",
     {2024, 6, 3, 6, 0},
     "Your password expires in seven days. Nobody from the service desk will ever ask for it.\r\n"},
    {"Trip to Lisbon: tickets",
     "Travel Office",
     "travel@example.com",
     {2024, 6, 20, 11, 11},
     "Your flight leaves on 8 July at 07:40 from gate B12. The hotel is confirmed for three nights.\r\n"},
    {"Question about the forecast",
     "Anna Lindqvist",
     "anna.lindqvist@example.org",
     {2024, 7, 1, 14, 20},
     "Does the forecast include the returns from the spring sale? The total in row 42 looks too good to be true.\r\n"},
    {"", "Old Scanner", "scanner@example.com", {2024, 7, 4, 17, 59}, "Scanned document, 1 page.\r\n"},
    {"Congratulations to the team",
     "Margaret Okafor",
     "margaret.okafor@example.com",
     {2024, 7, 12, 8, 0},
     "The release went out on time and nothing broke. Cake is in the kitchen on the second floor.\r\n"},
};

constexpr Mail kInternational[] = {
    {"AW: Angebot für Büromöbel",
     "Jürgen Müller",
     "juergen.mueller@example.org",
     {2024, 2, 6, 9, 12},
     "Sehr geehrte Frau Miller,\r\n\r\nvielen Dank für Ihre Anfrage. Die höhenverstellbaren Schreibtische können wir "
     "Ende März liefern; die Rechnung folgt nach der Lieferung.\r\n\r\nMit freundlichen Grüßen\r\nJürgen Müller\r\n"},
    {"Protokoll der Sitzung vom Dienstag",
     "Sabine Köhler",
     "sabine.koehler@example.org",
     {2024, 2, 8, 15, 30},
     "Liebe Kolleginnen und Kollegen,\r\nanbei das Protokoll. Der Übergabetermin für die Straßenbahnwerbung ist der "
     "15. Mai.\r\n"},
    {"Réunion à l'atelier de Besançon",
     "Élodie Lefèvre",
     "elodie.lefevre@example.net",
     {2024, 3, 11, 10, 0},
     "Bonjour Jane,\r\n\r\nla réunion aura lieu jeudi à dix heures à l'atelier. Nous goûterons aussi les nouvelles "
     "pâtisseries de la boulangerie voisine.\r\n\r\nÀ bientôt\r\nÉlodie\r\n"},
    {"Facture impayée du mois de février",
     "François Dubois",
     "francois.dubois@example.net",
     {2024, 3, 19, 8, 48},
     "Madame,\r\nsauf erreur de notre part, la facture du mois de février n'a pas encore été réglée.\r\n"},
    {"Reunión del próximo año en Málaga",
     "José Ibáñez",
     "jose.ibanez@example.com",
     {2024, 4, 22, 12, 12},
     "Hola Jane:\r\n\r\n¿podríamos mover la reunión al mes de septiembre? El mañana siempre llega demasiado "
     "pronto.\r\n\r\nUn saludo\r\nJosé\r\n"},
    {"Договор на поставку бумаги",
     "Ольга Соколова",
     "olga.sokolova@example.org",
     {2024, 5, 6, 7, 25},
     "Добрый день!\r\n\r\nНаправляю подписанный договор на поставку бумаги. Счёт будет выставлен первого июня.\r\n\r\n"
     "С уважением\r\nОльга Соколова\r\n"},
    {"Πρόσκληση στο συνέδριο της Θεσσαλονίκης",
     "Νίκος Παπαδόπουλος",
     "nikos.papadopoulos@example.org",
     {2024, 5, 21, 18, 3},
     "Αγαπητή Jane,\r\n\r\nσας προσκαλούμε στο συνέδριο της Θεσσαλονίκης τον Οκτώβριο. Το πρόγραμμα επισυνάπτεται."
     "\r\n\r\nΦιλικά\r\nΝίκος\r\n"},
    {"来週の会議の資料について",
     "田中 花子",
     "hanako.tanaka@example.com",
     {2024, 6, 5, 1, 40},
     "ミラー様\r\n\r\nお世話になっております。来週の会議の資料をお送りします。ご確認をお願いいたします。\r\n\r\n田中\r"
     "\n"},
    {"جدول الاجتماعات لشهر يوليو",
     "ليلى حسن",
     "layla.hassan@example.net",
     {2024, 6, 18, 5, 55},
     "السيدة ميلر،\r\n\r\nتجدون أدناه جدول الاجتماعات لشهر يوليو. يرجى تأكيد الحضور قبل نهاية الأسبوع.\r\n\r\nمع التحية"
     "\r\nليلى حسن\r\n"},
    {"Zaproszenie na targi w Łodzi",
     "Małgorzata Wójcik",
     "malgorzata.wojcik@example.org",
     {2024, 6, 24, 9, 9},
     "Dzień dobry,\r\nzapraszamy na targi w Łodzi. Źródło światła na stoisku jest już zamówione.\r\n"},
    {"Oferta ważna 🎉 İstanbul fuarı",
     "Çağlar Yıldız",
     "caglar.yildiz@example.com",
     {2024, 7, 2, 6, 30},
     "Merhaba,\r\nİstanbul fuarı için yer ayırdık. Görüşmek üzere 🎉\r\n"},
};

void AddHtmlAndRtf(FolderBuilder& folder) {
  auto& newsletter =
      Add(folder, {"Spring newsletter", "Garden Friends", "news@example.net", {2024, 3, 20, 7, 0}, nullptr});
  newsletter.Html(
      "<html><head><title>Spring</title><style>p { color: #364 }</style></head><body><h1>Spring in the garden</h1>"
      "<p>Tulips &amp; daffodils are out. Sow <b>carrots</b> and <i>radishes</i> now.</p>"
      "<table><tr><td>Rake</td><td>12&nbsp;&euro;</td></tr><tr><td>Watering "
      "can</td><td>18&nbsp;&euro;</td></tr></table>"
      "<script>var hidden = 'never shown';</script><p>Yours, the <a href=\"https://example.net/\">Garden "
      "Friends</a></p>"
      "</body></html>");
  Add(folder, {"Bestellbestätigung Nr. 5512", "Werkzeughof", "service@example.org", {2024, 4, 11, 19, 44}, nullptr})
      .Html(
          "<html><body><p>Vielen Dank f&uuml;r Ihre Bestellung.</p><ul><li>1 Akkuschrauber</li>"
          "<li>200 Schrauben 4&times;40</li></ul><p>Die Rechnung liegt dem Paket bei.</p></body></html>");
  Add(folder, {"Bulletin trimestriel", "Musée Exemple", "bulletin@example.net", {2024, 4, 30, 12, 0}, nullptr})
      .Html("<p>L'exposition «\u00a0Été\u00a0» ouvre ses portes le 21 juin. Entrée libre.</p>");
  Add(folder, {"Draft of the speech", "Margaret Okafor", "margaret.okafor@example.com", {2024, 5, 2, 21, 15}, nullptr})
      .Rtf(
          "{\\rtf1\\ansi\\ansicpg1252\\deff0{\\fonttbl{\\f0 Arial;}}\\pard Dear colleagues,\\par\\par "
          "this year we grew \\b faster\\b0  than the forecast said. Caf\\'e9 and kitchen are proof.\\par "
          "Thank you \\endash  all of you.\\par Margaret\\par}");
  Add(folder, {"Entwurf Vertrag", "Sabine Köhler", "sabine.koehler@example.org", {2024, 5, 7, 11, 0}, nullptr})
      .Rtf(
          "{\\rtf1\\ansi\\ansicpg1252 Der Vertrag beginnt am 1. Juli. Die K\\'fcndigungsfrist betr\\'e4gt drei "
          "Monate.\\par Preis: 4.500 \\u8364?\\par}");
  std::string report = "<html><body><h1>Measurements</h1>";
  for (int i = 1; i <= 400; ++i) {
    report.append("<p>Reading ").append(std::to_string(i)).append(": the pressure was ");
    report.append(std::to_string(980 + i % 40)).append(" hPa.</p>");
  }
  Add(folder, {"Long measurement report", "Weather Station", "station@example.org", {2024, 6, 1, 0, 5}, nullptr})
      .Html(report + "<p>End of the series: barograph stopped.</p></body></html>");
}

// A small picture: the eight signature bytes of PNG and bytes like those of a compressed image.
std::string Picture(std::size_t size) {
  std::string picture = "\x89PNG\r\n\x1A\n";
  for (std::uint32_t state = 12345; picture.size() < size;) {
    state = state * 1664525 + 1013904223;
    picture += static_cast<char>(state >> 24);
  }
  return picture;
}

void AddWithAttachments(FolderBuilder& folder) {
  Add(folder, {"Invoice 2024-131 with details",
               "Peter Smith",
               "peter.smith@example.com",
               {2024, 5, 3, 8, 20},
               "Jane, here is the invoice for April with the hours as a table.\r\n\r\nPeter\r\n"})
      .Cc("Laura Bennett", "laura.bennett@example.org")
      .AttachFile("invoice-2024-131.txt",
                  "Invoice 2024-131\r\nSmith & Partners\r\n\r\nConsulting, 12 days\r\nTotal due: 9,600.00\r\n")
      .MimeType("text/plain");
  auto& hours = Add(folder, {"Hours and rates",
                             "Peter Smith",
                             "peter.smith@example.com",
                             {2024, 5, 3, 8, 31},
                             "As promised, both tables.\r\n"});
  hours.AttachFile("hours.csv", "day,hours,task\r\n2024-04-02,8,workshop\r\n2024-04-03,6,interviews\r\n")
      .MimeType("text/csv");
  hours.AttachFile("rates.json", "{\"currency\": \"EUR\", \"rates\": {\"senior\": 120, \"junior\": 80}}\n")
      .MimeType("application/json");
  auto& manual = Add(folder, {"Manual, second edition",
                              "Anna Lindqvist",
                              "anna.lindqvist@example.org",
                              {2024, 5, 28, 15, 0},
                              "The manual as a page and as its source. Comments by Friday, please.\r\n"});
  manual.Bcc("Margaret Okafor", "margaret.okafor@example.com");
  manual
      .AttachFile("manual.html",
                  "<html><body><h1>Label printer</h1><p>Press the green button to feed the ribbon."
                  "</p></body></html>")
      .MimeType("text/html");
  manual.AttachFile("manual.md", "# Label printer\n\nPress the *green* button to feed the ribbon.\n")
      .MimeType("text/markdown");
  Add(folder, {"Photo of the harbour",
               "José Ibáñez",
               "jose.ibanez@example.com",
               {2024, 6, 9, 20, 17},
               "Un recuerdo de Málaga.\r\n"})
      .AttachFile("puerto.png", Picture(24'000))
      .MimeType("image/png");
  Add(folder, {"Umlaute im Dateinamen",
               "Jürgen Müller",
               "juergen.mueller@example.org",
               {2024, 6, 11, 7, 7},
               "Die Datei heißt absichtlich so.\r\n"})
      .AttachFile("Übersicht Prüfgeräte – 2024.txt",
                  "Pr\xC3\xBC"
                  "fger\xC3\xA4t 1: Multimeter\r\nPr\xC3\xBC"
                  "fger\xC3\xA4t 2: Oszilloskop\r\n");
  Add(folder, {"Archive of the old wiki",
               "IT Service",
               "it-service@example.com",
               {2024, 6, 30, 23, 0},
               "The attached export is what is left of the wiki.\r\n"})
      .AttachFile("wiki-export.bin", Picture(300'000));
  auto& forwarded = Add(folder, {"FW: Complaint about the delivery",
                                 "Laura Bennett",
                                 "laura.bennett@example.org",
                                 {2024, 7, 8, 9, 0},
                                 "Please read the attached message and answer her today.\r\n"});
  forwarded.AttachMessage("IPM.Note")
      .Subject("Complaint about the delivery")
      .From("Edith Weatherby", "edith.weatherby@example.net")
      .To("Laura Bennett", "laura.bennett@example.org")
      .SubmitTime(FileTime(2024, 7, 7, 18, 30))
      .Body("The parcel arrived wet, and the umbrella in it was broken. I expect a replacement.\r\n")
      .AttachFile("parcel.txt", "Parcel 00340434 was left in the rain at 14:05.\r\n");
}

void AddSent(FolderBuilder& folder) {
  struct Sent {
    const char* subject;
    const char* name;
    const char* email;
    const char* body;
  };
  constexpr Sent kSent[] = {
      {"RE: Lunch on Thursday?", "Anna Lindqvist", "anna.lindqvist@example.org", "Pancakes, yes. See you at noon.\r\n"},
      {"RE: Question about the forecast", "Anna Lindqvist", "anna.lindqvist@example.org",
       "You are right, row 42 counts the returns twice. Corrected now.\r\n"},
      {"Order of label printers", "Sales", "sales@example.net",
       "Please send four label printers and twenty ribbons.\r\n"},
      {"AW: Angebot für Büromöbel", "Jürgen Müller", "juergen.mueller@example.org",
       "Sehr geehrter Herr Müller, wir nehmen das Angebot an und bestellen sechs Schreibtische.\r\n"},
      {"Holiday plan", "Laura Bennett", "laura.bennett@example.org",
       "I am away from 5 to 16 August. Peter Smith covers for me.\r\n"},
  };
  unsigned day = 1;
  for (const Sent& s : kSent) {
    ++day;
    folder.AddMessage("IPM.Note")
        .Subject(s.subject)
        .From(kMe, kMyAddress)
        .To(s.name, s.email)
        .SubmitTime(FileTime(2024, 7, day, 10, 30))
        .Body(s.body)
        .Int(0x1090, day % 2 ? 2 : 0);
  }
}

}  // namespace

void AddMail(vault::StoreBuilder& store) {
  FolderBuilder& inbox = store.top().AddFolder("Inbox");
  for (const Mail& mail : kInbox) Add(inbox, mail);
  FolderBuilder& projects = inbox.AddFolder("Projects");
  AddHtmlAndRtf(projects.AddFolder("Newsletters & drafts"));
  AddWithAttachments(projects.AddFolder("Invoices").AddFolder("2024"));
  FolderBuilder& international = inbox.AddFolder("International – 世界");
  for (const Mail& mail : kInternational) Add(international, mail);
  AddSent(store.top().AddFolder("Sent Items"));
  Add(store.deleted_items(), {"You have won a yacht",
                              "Lottery",
                              "lottery@example.net",
                              {2024, 1, 2, 3, 4},
                              "Send us your shoe size to claim it.\r\n"});
}

}  // namespace mkvault
