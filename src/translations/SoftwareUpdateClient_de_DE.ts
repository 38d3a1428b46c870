<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de_DE">
<context>
    <name>DownloadManager</name>
    <message>
        <source>Downloaded file could not be unpacked:&lt;br&gt;</source>
        <translation>Die heruntergeladene Datei konnte nicht entpackt werden:&lt;br&gt;</translation>
    </message>
    <message>
        <source>Select Installation Path for &apos;%1&apos;</source>
        <translation>Installationsordner für &apos;%1&apos; auswählen</translation>
    </message>
    <message>
        <source>Unpacking &apos;%1&apos;</source>
        <translation>&apos;%1&apos; wird entpackt</translation>
    </message>
</context>
<context>
    <name>SoftwareUpdateAvailableGui</name>
    <message>
        <source>Update Available</source>
        <translation>Update verfügbar</translation>
    </message>
    <message>
        <source>Select Packages from List:</source>
        <translation>Wählen Sie Pakete aus der Liste aus:</translation>
    </message>
    <message>
        <source>Show all languages</source>
        <translation>Alle Sprachen anzeigen</translation>
    </message>
    <message>
        <source>Release Notes</source>
        <translation>Versionsübersicht</translation>
    </message>
    <message>
        <source>Download Package</source>
        <translation>Paket herunterladen</translation>
    </message>
    <message>
        <source>Install Package</source>
        <translation>Paket installieren</translation>
    </message>
    <message>
        <source>Update Settings...</source>
        <translation>Update-Einstellungen...</translation>
    </message>
    <message>
        <source>You can download and install the package manually or start the installation immediately (only available for supported package types).</source>
        <translation>Sie können das Paket manuell herunterladen und installieren oder die Installation sofort starten (nur für unterstützte Pakettypen verfügbar).</translation>
    </message>
    <message>
        <source>For more information and updates visit &lt;a href=&quot;https://www.quorvel.com/support/downloads/&quot;&gt;www.quorvel.com/support&lt;/a&gt;.</source>
        <translation>Weitere Informationen und Updates finden Sie unter &lt;a href=&quot;https://www.quorvel.com/de/support/downloads/&quot;&gt;www.quorvel.com/de/support&lt;/a&gt;.</translation>
    </message>
</context>
<context>
    <name>SoftwareUpdateClient</name>
    <message>
        <source>No update available!</source>
        <translation>Kein Update vorhanden!</translation>
    </message>
    <message>
        <source>Congratulations! Your product is up-to-date!</source>
        <translation>Herzlichen Glückwunsch! Ihr Produkt ist aktuell!</translation>
    </message>
    <message>
        <source>Timeout error! Update server unreachable!</source>
        <translation>Zeitüberschreitung! Der Update-Server antwortet nicht!</translation>
    </message>
    <message>
        <source>Download Error</source>
        <translation>Download-Fehler</translation>
    </message>
    <message>
        <source>Error downloading! Http status code %1</source>
        <translation>Fehler beim Herunterladen! HTTP-Statuscode %1</translation>
    </message>
    <message>
        <source>Downloading package to temporary folder...</source>
        <translation>Paket wird in den temporären Ordner heruntergeladen...</translation>
    </message>
    <message>
        <source>After downloading the package, the installer will automatically exit and restart your application!</source>
        <translation>Nach der Installation des Pakets wird die Anwendung automatisch beendet und neu gestartet!</translation>
    </message>
    <message>
        <source>Install Package</source>
        <translation>Paket installieren</translation>
    </message>
    <message>
        <source>Cancel Install</source>
        <translation>Installation abbrechen</translation>
    </message>
    <message>
        <source>Proceed</source>
        <translation>Weiter</translation>
    </message>
    <message>
        <source>Installation failed</source>
        <translation>Installation fehlgeschlagen</translation>
    </message>
    <message>
        <source>Installation process failed. If problem persists try manual install.</source>
        <translation>Die Installation ist fehlgeschlagen. Wenn das Problem weiterhin besteht, installieren Sie das Paket manuell.</translation>
    </message>
    <message>
        <source>Unknown package type! Installation cannot proceed!</source>
        <translation>Unbekannter Pakettyp! Die Installation kann nicht fortgesetzt werden!</translation>
    </message>
    <message>
        <source>Restart required</source>
        <translation>Neustart erforderlich</translation>
    </message>
    <message>
        <source>Please restart your application to finish the installation process.</source>
        <translation>Bitte starten Sie Ihre Anwendung neu, um die Installation abzuschließen.</translation>
    </message>
    <message>
        <source>Restart now</source>
        <translation>Jetzt neu starten</translation>
    </message>
    <message>
        <source>Restart later</source>
        <translation>Später neu starten</translation>
    </message>
    <message>
        <source>Name</source>
        <translation>Name</translation>
    </message>
    <message>
        <source>File Type</source>
        <translation>Dateityp</translation>
    </message>
    <message>
        <source>File Size</source>
        <translation>Dateigröße</translation>
    </message>
    <message>
        <source>Languages</source>
        <translation>Sprachen</translation>
    </message>
    <message>
        <source>Platforms</source>
        <translation>Plattformen</translation>
    </message>
    <message>
        <source>Multilingual</source>
        <translation>Mehrsprachig</translation>
    </message>
    <message>
        <source>Published on %1</source>
        <translation>Veröffentlicht am %1</translation>
    </message>
    <message>
        <source>The update catalogue is not signed with a trusted key. No updates are offered.</source>
        <translation>Der Update-Katalog ist nicht mit einem vertrauenswürdigen Schlüssel signiert. Es werden keine Updates angeboten.</translation>
    </message>
    <message>
        <source>The update catalogue has no publication number or expiry date. No updates are offered.</source>
        <translation>Der Update-Katalog hat keine Veröffentlichungsnummer oder kein Ablaufdatum. Es werden keine Updates angeboten.</translation>
    </message>
    <message>
        <source>The update server sent an older catalogue than before. No updates are offered.</source>
        <translation>Der Update-Server hat einen älteren Katalog als zuvor gesendet. Es werden keine Updates angeboten.</translation>
    </message>
    <message>
        <source>The update catalogue has expired. No updates are offered.</source>
        <translation>Der Update-Katalog ist abgelaufen. Es werden keine Updates angeboten.</translation>
    </message>
    <message>
        <source>The downloaded package does not match the published one. It was deleted, and nothing was installed.</source>
        <translation>Das heruntergeladene Paket stimmt nicht mit dem veröffentlichten überein. Es wurde gelöscht, und nichts wurde installiert.</translation>
    </message>
    <message>
        <source>The update server did not answer with an update catalogue.</source>
        <translation>Der Update-Server hat nicht mit einem Update-Katalog geantwortet.</translation>
    </message>
    <message>
        <source>Update rolled back</source>
        <translation>Update zurückgenommen</translation>
    </message>
    <message>
        <source>The new version did not start, so the update was rolled back. This is the version you had before.</source>
        <translation>Die neue Version ist nicht gestartet, deshalb wurde das Update zurückgenommen. Dies ist die Version, die Sie vorher hatten.</translation>
    </message>
    <message>
        <source>The package is downloaded, verified and unpacked first. You are asked before the application closes to be replaced by the new version.</source>
        <translation>Das Paket wird zuerst heruntergeladen, geprüft und entpackt. Sie werden gefragt, bevor die Anwendung beendet und durch die neue Version ersetzt wird.</translation>
    </message>
    <message>
        <source>Downloading and verifying the package...</source>
        <translation>Paket wird heruntergeladen und geprüft...</translation>
    </message>
    <message>
        <source>The package does not contain the program %1. Nothing was changed.</source>
        <translation>Das Paket enthält das Programm %1 nicht. Es wurde nichts geändert.</translation>
    </message>
    <message>
        <source>The new version is unpacked and verified. Restart now to install it: the application closes, is replaced, and starts again. If the new version does not start, this version comes back.</source>
        <translation>Die neue Version ist entpackt und geprüft. Starten Sie jetzt neu, um sie zu installieren: Die Anwendung wird beendet, ersetzt und neu gestartet. Startet die neue Version nicht, kehrt diese Version zurück.</translation>
    </message>
    <message>
        <source>The update catalogue is not signed for this update server. No updates are offered.</source>
        <translation>Der Update-Katalog ist nicht für diesen Update-Server signiert. Es werden keine Updates angeboten.</translation>
    </message>
    <message>
        <source>The application folder %1 can be changed by other users, so the update cannot be installed safely. Nothing was changed.</source>
        <translation>Der Anwendungsordner %1 kann von anderen Benutzern geändert werden, daher kann das Update nicht sicher installiert werden. Es wurde nichts geändert.</translation>
    </message>
    <message>
        <source>Version %1 is not offered again until a newer one is published.</source>
        <translation>Version %1 wird erst wieder angeboten, wenn eine neuere veröffentlicht ist.</translation>
    </message>
    <message>
        <source>There is not enough free disk space to unpack the update (%1 MB needed, %2 MB free). Nothing was changed.</source>
        <translation>Es ist nicht genug freier Speicherplatz vorhanden, um das Update zu entpacken (%1 MB benötigt, %2 MB frei). Es wurde nichts geändert.</translation>
    </message>
    <message>
        <source>The package is not one of those offered by the last check.</source>
        <translation>Das Paket gehört nicht zu den bei der letzten Prüfung angebotenen.</translation>
    </message>
    <message>
        <source>Another update is being installed.</source>
        <translation>Ein anderes Update wird gerade installiert.</translation>
    </message>
    <message>
        <source>The download was canceled.</source>
        <translation>Der Download wurde abgebrochen.</translation>
    </message>
    <message>
        <source>The package could not be unpacked: %1</source>
        <translation>Das Paket konnte nicht entpackt werden: %1</translation>
    </message>
    <message>
        <source>The package holds %1, not the program %2: the names differ in letter case. Nothing was changed.</source>
        <translation>Das Paket enthält %1, nicht das Programm %2: Die Namen unterscheiden sich in der Groß- und Kleinschreibung. Es wurde nichts geändert.</translation>
    </message>
    <message>
        <source>The program %1 in the package is not marked as executable (a ZIP archive made on Windows keeps no such mark). Nothing was changed.</source>
        <translation>Das Programm %1 im Paket ist nicht als ausführbar markiert (ein unter Windows erstelltes ZIP-Archiv speichert diese Markierung nicht). Es wurde nichts geändert.</translation>
    </message>
    <message>
        <source>The program %1 in the package is not a regular file. Nothing was changed.</source>
        <translation>Das Programm %1 im Paket ist keine reguläre Datei. Es wurde nichts geändert.</translation>
    </message>
    <message>
        <source>Retrying in %1 s</source>
        <translation>Neuer Versuch in %1 s</translation>
    </message>
    <message>
        <source>Downloading the update: %1 instead of the whole package (%2)...</source>
        <translation>Das Update wird geladen: %1 statt des ganzen Pakets (%2)...</translation>
    </message>
</context>
<context>
    <name>SoftwareUpdateDialogGui</name>
    <message>
        <source>Check for Updates</source>
        <translation>Nach Updates suchen</translation>
    </message>
    <message>
        <source>You can search for new versions manually or automatically.</source>
        <translation>Sie können manuell oder automatisch nach neuen Versionen suchen.</translation>
    </message>
    <message>
        <source>Current version:</source>
        <translation>Aktuelle Version:</translation>
    </message>
    <message>
        <source>Check Now</source>
        <translation>Jetzt suchen</translation>
    </message>
    <message>
        <source>Last check</source>
        <translation>Letzte Suche</translation>
    </message>
    <message>
        <source>Check for updates:</source>
        <translation>Nach Updates suchen:</translation>
    </message>
    <message>
        <source>At application start</source>
        <translation>Beim Programmstart</translation>
    </message>
    <message>
        <source>Daily</source>
        <translation>Täglich</translation>
    </message>
    <message>
        <source>Weekly</source>
        <translation>Wöchentlich</translation>
    </message>
    <message>
        <source>Monthly</source>
        <translation>Monatlich</translation>
    </message>
    <message>
        <source>Include beta versions</source>
        <translation>Beta-Versionen einschließen</translation>
    </message>
    <message>
        <source>Update server URL:</source>
        <translation>URL des Update-Servers:</translation>
    </message>
</context>
</TS>
