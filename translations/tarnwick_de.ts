<?xml version='1.0' encoding='utf-8'?>
<TS version="2.1" language="de_DE">
<context>
    <name>BackendFailedView</name>
    <message>
        <source>Syncing has stopped</source>
        <translation>Die Synchronisierung wurde angehalten</translation>
    </message>
    <message>
        <source>The sync engine is not running.</source>
        <translation>Die Synchronisierung läuft nicht.</translation>
    </message>
    <message>
        <source>Restart backend</source>
        <translation>Backend neu starten</translation>
    </message>
</context>
<context>
    <name>CheckForUpdatesView</name>
    <message>
        <source>Check for Updates…</source>
        <translation>Nach Updates suchen…</translation>
    </message>
    <message>
        <source>Download</source>
        <translation>Herunterladen</translation>
    </message>
    <message>
        <source>Download the new version</source>
        <translation>Die neue Version herunterladen</translation>
    </message>
    <message>
        <source>Show</source>
        <translation>Zeigen</translation>
    </message>
    <message>
        <source>Show the downloaded update in its folder</source>
        <translation>Das heruntergeladene Update in seinem Ordner zeigen</translation>
    </message>
</context>
<context>
    <name>ContentView</name>
    <message>
        <source>%1 folder</source>
        <translation>%1 Ordner</translation>
    </message>
    <message>
        <source>%1 folders</source>
        <translation>%1 Ordner</translation>
    </message>
    <message>
        <source>Loading...</source>
        <translation>Wird geladen...</translation>
    </message>
    <message>
        <source>No Folders Syncing</source>
        <translation>Keine Ordner werden synchronisiert</translation>
    </message>
    <message>
        <source>Add folders to sync from the Settings tab</source>
        <translation>Ordner zum Synchronisieren im Tab „Einstellungen“ hinzufügen</translation>
    </message>
    <message>
        <source>Please wait while we load your sync status</source>
        <translation>Bitte warten, der Synchronisierungsstatus wird geladen</translation>
    </message>
</context>
<context>
    <name>FolderRow</name>
    <message>
        <source>This folder is synced with iCloud</source>
        <translation>Dieser Ordner wird mit iCloud synchronisiert</translation>
    </message>
    <message>
        <source>Open folder</source>
        <translation>Ordner öffnen</translation>
    </message>
    <message>
        <source>Stop watching this folder</source>
        <translation>Diesen Ordner nicht mehr beobachten</translation>
    </message>
</context>
<context>
    <name>GroupCard</name>
    <message>
        <source>Group #%1</source>
        <translation>Gruppe #%1</translation>
    </message>
    <message>
        <source>Retention</source>
        <translation>Aufbewahrung</translation>
    </message>
    <message>
        <source>Configure retention settings</source>
        <translation>Aufbewahrung einstellen</translation>
    </message>
    <message>
        <source>Photos</source>
        <translation>Fotos</translation>
    </message>
    <message>
        <source>Add Photos library</source>
        <translation>Fotos-Mediathek hinzufügen</translation>
    </message>
    <message>
        <source>Folder</source>
        <translation>Ordner</translation>
    </message>
    <message>
        <source>Add folder</source>
        <translation>Ordner hinzufügen</translation>
    </message>
    <message>
        <source>No folders added yet</source>
        <translation>Noch keine Ordner hinzugefügt</translation>
    </message>
    <message>
        <source>Click the buttons above to add a Photos library or folder to sync</source>
        <translation>Mit den Schaltflächen oben eine Fotos-Mediathek oder einen Ordner zum Synchronisieren hinzufügen</translation>
    </message>
</context>
<context>
    <name>LoginView</name>
    <message>
        <source>Secure file sync</source>
        <translation>Sichere Dateisynchronisierung</translation>
    </message>
    <message>
        <source>Email</source>
        <translation>E-Mail</translation>
    </message>
    <message>
        <source>you@tarnwick.app</source>
        <translation>du@tarnwick.app</translation>
    </message>
    <message>
        <source>Send 6-digit code via email</source>
        <translation>6-stelligen Code per E-Mail senden</translation>
    </message>
    <message>
        <source>6-Digit Code</source>
        <translation>6-stelliger Code</translation>
    </message>
    <message>
        <source>Enter code</source>
        <translation>Code eingeben</translation>
    </message>
    <message>
        <source>Login</source>
        <translation>Anmelden</translation>
    </message>
    <message>
        <source>Quit</source>
        <translation>Beenden</translation>
    </message>
    <message>
        <source>Quit (Ctrl+Q)</source>
        <translation>Beenden (Strg+Q)</translation>
    </message>
</context>
<context>
    <name>MenuBarView</name>
    <message>
        <source>Status</source>
        <translation>Status</translation>
    </message>
    <message>
        <source>Settings</source>
        <translation>Einstellungen</translation>
    </message>
    <message>
        <source>The settings could not be shown.</source>
        <translation>Die Einstellungen konnten nicht angezeigt werden.</translation>
    </message>
    <message>
        <source>Launch at login</source>
        <translation>Beim Anmelden starten</translation>
    </message>
    <message>
        <source>Check for Updates</source>
        <translation>Nach Updates suchen</translation>
    </message>
    <message>
        <source>Check for app updates</source>
        <translation>Nach App-Updates suchen</translation>
    </message>
    <message>
        <source>Logout</source>
        <translation>Abmelden</translation>
    </message>
    <message>
        <source>Logout and quit</source>
        <translation>Abmelden und beenden</translation>
    </message>
    <message>
        <source>Quit</source>
        <translation>Beenden</translation>
    </message>
    <message>
        <source>Software Update</source>
        <translation>Softwareaktualisierung</translation>
    </message>
</context>
<context>
    <name>PhotoLibraryInstructionsView</name>
    <message>
        <source>Open Photos App</source>
        <translation>Fotos-App öffnen</translation>
    </message>
    <message>
        <source>Launch the Photos application on your Mac</source>
        <translation>Die Fotos-App auf deinem Mac starten</translation>
    </message>
    <message>
        <source>Open Settings</source>
        <translation>Einstellungen öffnen</translation>
    </message>
    <message>
        <source>Click Photos in the menu bar, then select Settings...</source>
        <translation>In der Menüleiste auf „Fotos“ klicken und „Einstellungen...“ wählen</translation>
    </message>
    <message>
        <source>Enable Download Originals</source>
        <translation>„Originale laden“ einschalten</translation>
    </message>
    <message>
        <source>In the iCloud tab, select "Download Originals to this Mac"</source>
        <translation>Im Tab „iCloud“ die Option „Originale auf diesen Mac laden“ wählen</translation>
    </message>
    <message>
        <source>Wait for Download</source>
        <translation>Auf das Laden warten</translation>
    </message>
    <message>
        <source>Wait for all photos and videos to finish downloading. You can check progress at the bottom of the Photos app window.</source>
        <translation>Warten, bis alle Fotos und Videos geladen sind. Den Fortschritt zeigt das Fenster der Fotos-App unten an.</translation>
    </message>
    <message>
        <source>Verify Completion</source>
        <translation>Vollständigkeit prüfen</translation>
    </message>
    <message>
        <source>Ensure the status shows all items are downloaded before continuing</source>
        <translation>Vor dem Fortfahren sicherstellen, dass der Status alle Objekte als geladen zeigt</translation>
    </message>
    <message>
        <source>Before Adding Photos Library</source>
        <translation>Vor dem Hinzufügen der Fotos-Mediathek</translation>
    </message>
    <message>
        <source>Important Setup Required</source>
        <translation>Wichtige Vorbereitung nötig</translation>
    </message>
    <message>
        <source>You must download all original photos to your Mac before syncing your Photos library.</source>
        <translation>Vor dem Synchronisieren der Fotos-Mediathek müssen alle Originalfotos auf deinen Mac geladen sein.</translation>
    </message>
    <message>
        <source>Why is this necessary?</source>
        <translation>Warum ist das nötig?</translation>
    </message>
    <message>
        <source>tarnwick needs access to the original, full-resolution files to sync them properly. If originals are not downloaded, only low-resolution previews will be synced.</source>
        <translation>tarnwick braucht die Originaldateien in voller Auflösung, um sie richtig zu synchronisieren. Sind die Originale nicht geladen, werden nur Vorschauen in niedriger Auflösung synchronisiert.</translation>
    </message>
    <message>
        <source>Back</source>
        <translation>Zurück</translation>
    </message>
    <message>
        <source>I Have Downloaded Originals</source>
        <translation>Originale sind geladen</translation>
    </message>
</context>
<context>
    <name>QObject</name>
    <message>
        <source>Choose a folder to sync</source>
        <translation>Einen Ordner zum Synchronisieren wählen</translation>
    </message>
    <message>
        <source>Choose a Photos library</source>
        <translation>Eine Fotos-Mediathek wählen</translation>
    </message>
    <message>
        <source>Library:</source>
        <translation>Mediathek:</translation>
    </message>
    <message>
        <source>Photos library</source>
        <translation>Fotos-Mediathek</translation>
    </message>
</context>
<context>
    <name>RetentionSettingsView</name>
    <message>
        <source>Back</source>
        <translation>Zurück</translation>
    </message>
    <message>
        <source>Retention Settings: %1</source>
        <translation>Aufbewahrung: %1</translation>
    </message>
    <message>
        <source>Automatic Cleanup</source>
        <translation>Automatisches Aufräumen</translation>
    </message>
    <message>
        <source>Delete files older than</source>
        <translation>Dateien löschen, die älter sind als</translation>
    </message>
    <message>
        <source>days</source>
        <translation>Tage</translation>
    </message>
    <message>
        <source>Last Retention Run</source>
        <translation>Letztes Aufräumen</translation>
    </message>
    <message>
        <source>No retention run yet</source>
        <translation>Noch nie aufgeräumt</translation>
    </message>
    <message>
        <source>Last run:</source>
        <translation>Zuletzt:</translation>
    </message>
    <message>
        <source>Files removed:</source>
        <translation>Entfernte Dateien:</translation>
    </message>
    <message>
        <source>Space freed:</source>
        <translation>Freigegebener Speicher:</translation>
    </message>
    <message>
        <source>Initial cleanup:</source>
        <translation>Erstes Aufräumen:</translation>
    </message>
    <message>
        <source>Orphans removed:</source>
        <translation>Entfernte verwaiste Dateien:</translation>
    </message>
    <message>
        <source>One-time scan when retention was first enabled</source>
        <translation>Einmalige Prüfung beim ersten Einschalten der Aufbewahrung</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>Abbrechen</translation>
    </message>
    <message>
        <source>Saving...</source>
        <translation>Wird gesichert...</translation>
    </message>
    <message>
        <source>Save</source>
        <translation>Sichern</translation>
    </message>
</context>
<context>
    <name>SettingsView</name>
    <message>
        <source>The change was not made</source>
        <translation>Die Änderung wurde nicht vorgenommen</translation>
    </message>
    <message>
        <source>Loading...</source>
        <translation>Wird geladen...</translation>
    </message>
    <message>
        <source>No Groups Found</source>
        <translation>Keine Gruppen gefunden</translation>
    </message>
    <message>
        <source>Please wait while we load your groups</source>
        <translation>Bitte warten, deine Gruppen werden geladen</translation>
    </message>
    <message>
        <source>Log in to the tarnwick website and create a group to get started</source>
        <translation>Melde dich auf der tarnwick-Website an und lege eine Gruppe an, um zu beginnen</translation>
    </message>
    <message>
        <source>Sync Folders</source>
        <translation>Synchronisierte Ordner</translation>
    </message>
    <message>
        <source>iCloud Sync Detected</source>
        <translation>iCloud-Synchronisierung erkannt</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>Abbrechen</translation>
    </message>
    <message>
        <source>Add Anyway</source>
        <translation>Trotzdem hinzufügen</translation>
    </message>
</context>
<context>
    <name>StatusBadge</name>
    <message>
        <source>Synced</source>
        <translation>Synchronisiert</translation>
    </message>
    <message>
        <source>Syncing</source>
        <translation>Wird synchronisiert</translation>
    </message>
    <message>
        <source>Pending</source>
        <translation>Ausstehend</translation>
    </message>
</context>
<context>
    <name>SyncItemCard</name>
    <message>
        <source>in %1</source>
        <translation>in %1</translation>
    </message>
    <message>
        <source>Group: %1</source>
        <translation>Gruppe: %1</translation>
    </message>
    <message>
        <source>Error: %1</source>
        <translation>Fehler: %1</translation>
    </message>
    <message>
        <source>Open folder</source>
        <translation>Ordner öffnen</translation>
    </message>
    <message>
        <source>Open in %1</source>
        <translation>In %1 öffnen</translation>
    </message>
</context>
<context>
    <name>UpdaterSettingsView</name>
    <message>
        <source>Automatically check for updates</source>
        <translation>Automatisch nach Updates suchen</translation>
    </message>
    <message>
        <source>Automatically download updates</source>
        <translation>Updates automatisch laden</translation>
    </message>
    <message>
        <source>Last checked: %1</source>
        <translation>Zuletzt gesucht: %1</translation>
    </message>
</context>
<context>
    <name>tarnwick::ItemsProvider</name>
    <message>
        <source>Sending 6-digit code to %1 ...</source>
        <translation>6-stelliger Code wird an %1 gesendet ...</translation>
    </message>
    <message>
        <source>6-digit code sent to %1. Check your email.</source>
        <translation>6-stelliger Code an %1 gesendet. Sieh in deinen E-Mails nach.</translation>
    </message>
    <message>
        <source>Authenticating ...</source>
        <translation>Anmeldung läuft ...</translation>
    </message>
    <message>
        <source>Authentication failed. Please retry ...</source>
        <translation>Anmeldung fehlgeschlagen. Bitte versuche es erneut ...</translation>
    </message>
</context>
<context>
    <name>tarnwick::SettingsActions</name>
    <message>
        <source>This folder appears to be synced with iCloud Drive. Files may not sync properly as they could be stored only in iCloud and not downloaded locally. This may cause conflicts with tarnwick sync.</source>
        <translation>Dieser Ordner scheint mit iCloud Drive synchronisiert zu werden. Dateien werden möglicherweise nicht richtig synchronisiert, da sie nur in iCloud liegen und nicht lokal geladen sein könnten. Das kann zu Konflikten mit der Tarnwick-Synchronisierung führen.</translation>
    </message>
    <message>
        <source>This Photos library appears to be synced with iCloud. This may cause sync conflicts with tarnwick.</source>
        <translation>Diese Fotos-Mediathek scheint mit iCloud synchronisiert zu werden. Das kann zu Synchronisierungskonflikten mit Tarnwick führen.</translation>
    </message>
    <message>
        <source>Group not found</source>
        <translation>Gruppe nicht gefunden</translation>
    </message>
</context>
<context>
    <name>tarnwick::pathcheck::FileSystemUtils</name>
    <message>
        <source>This folder is in iCloud Drive and may cause sync conflicts.</source>
        <translation>Dieser Ordner liegt in iCloud Drive und kann Synchronisierungskonflikte verursachen.</translation>
    </message>
    <message>
        <source>This iCloud folder has items not downloaded locally.</source>
        <translation>Dieser iCloud-Ordner enthält Objekte, die nicht lokal geladen sind.</translation>
    </message>
    <message>
        <source>This folder is synced with iCloud Drive.</source>
        <translation>Dieser Ordner wird mit iCloud Drive synchronisiert.</translation>
    </message>
    <message>
        <source>This folder appears to be synced with iCloud.</source>
        <translation>Dieser Ordner scheint mit iCloud synchronisiert zu werden.</translation>
    </message>
    <message>
        <source>The selected path does not exist.</source>
        <translation>Der gewählte Pfad existiert nicht.</translation>
    </message>
    <message>
        <source>This folder is synced with iCloud.</source>
        <translation>Dieser Ordner wird mit iCloud synchronisiert.</translation>
    </message>
    <message>
        <source>The selected path is not readable. Check permissions.</source>
        <translation>Der gewählte Pfad ist nicht lesbar. Prüfe die Zugriffsrechte.</translation>
    </message>
    <message>
        <source>The selected path is not a Photos library.</source>
        <translation>Der gewählte Pfad ist keine Fotos-Mediathek.</translation>
    </message>
    <message>
        <source>The originals folder does not exist in this Photos library.</source>
        <translation>In dieser Fotos-Mediathek gibt es keinen Ordner mit Originalen.</translation>
    </message>
    <message>
        <source>Cannot read the originals folder. Check permissions.</source>
        <translation>Der Ordner mit den Originalen ist nicht lesbar. Prüfe die Zugriffsrechte.</translation>
    </message>
    <message>
        <source>Warning: Could not verify originals folder contents.</source>
        <translation>Warnung: Der Inhalt des Ordners mit den Originalen konnte nicht geprüft werden.</translation>
    </message>
    <message>
        <source>Warning: The originals folder appears to be empty. Make sure 'Download Originals to this Mac' is enabled in Photos settings.</source>
        <translation>Warnung: Der Ordner mit den Originalen scheint leer zu sein. Stelle sicher, dass „Originale auf diesen Mac laden“ in den Einstellungen von Fotos eingeschaltet ist.</translation>
    </message>
</context>
<context>
    <name>tarnwick::supervisor::BackendLauncher</name>
    <message>
        <source>Binary crashed repeatedly. Please reinstall the app.</source>
        <translation>Das Programm ist wiederholt abgestürzt. Bitte installiere die App neu.</translation>
    </message>
    <message>
        <source>The backend cannot start: every local port it may use is taken by other programs. Close some of them, then restart the backend.</source>
        <translation>Das Backend kann nicht starten: Jeder lokale Port, den es nutzen darf, ist von anderen Programmen belegt. Beende einige davon und starte dann das Backend neu.</translation>
    </message>
    <message>
        <source>The backend could not listen on its local port: other programs kept taking it. Restart the backend to try again.</source>
        <translation>Das Backend konnte seinen lokalen Port nicht öffnen: Andere Programme haben ihn immer wieder belegt. Starte das Backend neu, um es erneut zu versuchen.</translation>
    </message>
    <message>
        <source>The backend started but never showed its key, so the client cannot talk to it. Restart the backend to try again.</source>
        <translation>Das Backend ist gestartet, hat aber nie seinen Schlüssel gezeigt, daher kann der Client nicht mit ihm sprechen. Starte das Backend neu, um es erneut zu versuchen.</translation>
    </message>
</context>
<context>
    <name>tarnwick::supervisor::BinaryPreparation</name>
    <message>
        <source>the disk is full (%1)</source>
        <translation>der Datenträger ist voll (%1)</translation>
    </message>
    <message>
        <source>the disk quota is used up (%1)</source>
        <translation>das Speicherkontingent ist aufgebraucht (%1)</translation>
    </message>
    <message>
        <source>a folder is in the way (%1)</source>
        <translation>ein Ordner steht im Weg (%1)</translation>
    </message>
    <message>
        <source>it may not be written there (%1)</source>
        <translation>dort darf nicht geschrieben werden (%1)</translation>
    </message>
    <message>
        <source>The backend could not be copied to %1: %2.</source>
        <translation>Das Backend konnte nicht nach %1 kopiert werden: %2.</translation>
    </message>
    <message>
        <source>The backend's folder %1 cannot be used: %2.</source>
        <translation>Der Ordner des Backends %1 kann nicht verwendet werden: %2.</translation>
    </message>
    <message>
        <source>it is not a real folder</source>
        <translation>er ist kein echter Ordner</translation>
    </message>
    <message>
        <source>it belongs to user %1</source>
        <translation>er gehört dem Benutzer %1</translation>
    </message>
    <message>
        <source>others may write to it (mode %1)</source>
        <translation>andere dürfen in ihn schreiben (Modus %1)</translation>
    </message>
    <message>
        <source>The backend's folder %1 is not private (%2) and could not be made again: %3.</source>
        <translation>Der Ordner des Backends %1 ist nicht privat (%2) und konnte nicht neu angelegt werden: %3.</translation>
    </message>
    <message>
        <source>The backend %1 is missing from this installation.</source>
        <translation>Das Backend %1 fehlt in dieser Installation.</translation>
    </message>
    <message>
        <source>There is no data folder to keep the backend in.</source>
        <translation>Es gibt keinen Datenordner, in dem das Backend liegen kann.</translation>
    </message>
    <message>
        <source>The backend's folder %1 could not be made: %2.</source>
        <translation>Der Ordner des Backends %1 konnte nicht angelegt werden: %2.</translation>
    </message>
    <message>
        <source>The backend shipped with this installation (%1) failed its checks after copying.</source>
        <translation>Das mit dieser Installation gelieferte Backend (%1) hat nach dem Kopieren die Prüfung nicht bestanden.</translation>
    </message>
</context>
<context>
    <name>tarnwick::ui::DesktopNotifications</name>
    <message>
        <source>Open Tarnwick</source>
        <translation>Tarnwick öffnen</translation>
    </message>
</context>
<context>
    <name>tarnwick::ui::Notifier</name>
    <message>
        <source>Sign in to Tarnwick</source>
        <translation>Bei Tarnwick anmelden</translation>
    </message>
    <message>
        <source>Your folders are not syncing until you sign in. Open Tarnwick from its tray icon to sign in.</source>
        <translation>Deine Ordner werden erst nach der Anmeldung synchronisiert. Öffne Tarnwick über das Symbol in der Leiste, um dich anzumelden.</translation>
    </message>
    <message>
        <source>Tarnwick has stopped syncing</source>
        <translation>Tarnwick synchronisiert nicht mehr</translation>
    </message>
    <message>
        <source>The sync engine stopped.</source>
        <translation>Die Synchronisierung wurde beendet.</translation>
    </message>
    <message>
        <source>%1 Open Tarnwick and choose "Restart backend" to try again.</source>
        <translation>%1 Öffne Tarnwick und wähle „Backend neu starten“, um es erneut zu versuchen.</translation>
    </message>
</context>
<context>
    <name>tarnwick::ui::RetentionEditor</name>
    <message>
        <source>Retention Active</source>
        <translation>Aufbewahrung aktiv</translation>
    </message>
    <message>
        <source>Full Retention</source>
        <translation>Alles aufbewahren</translation>
    </message>
    <message>
        <source>All deleted files are kept forever (0 = disabled)</source>
        <translation>Alle gelöschten Dateien werden für immer aufbewahrt (0 = aus)</translation>
    </message>
    <message>
        <source>Deleted files older than %1 days will be permanently removed</source>
        <translation>Gelöschte Dateien, die älter als %1 Tage sind, werden endgültig entfernt</translation>
    </message>
    <message>
        <source>Zero KB</source>
        <translation>Null KB</translation>
    </message>
    <message>
        <source>%1 byte</source>
        <translation>%1 Byte</translation>
    </message>
    <message>
        <source>%1 bytes</source>
        <translation>%1 Byte</translation>
    </message>
</context>
<context>
    <name>tarnwick::ui::SettingsController</name>
    <message>
        <source>%1 group</source>
        <translation>%1 Gruppe</translation>
    </message>
    <message>
        <source>%1 groups</source>
        <translation>%1 Gruppen</translation>
    </message>
</context>
<context>
    <name>tarnwick::ui::TrayController</name>
    <message>
        <source>Restart backend</source>
        <translation>Backend neu starten</translation>
    </message>
    <message>
        <source>Open Tarnwick</source>
        <translation>Tarnwick öffnen</translation>
    </message>
    <message>
        <source>Show Status</source>
        <translation>Status zeigen</translation>
    </message>
    <message>
        <source>Show Settings</source>
        <translation>Einstellungen zeigen</translation>
    </message>
    <message>
        <source>Quit</source>
        <translation>Beenden</translation>
    </message>
    <message>
        <source>Backend stopped</source>
        <translation>Backend angehalten</translation>
    </message>
    <message>
        <source>Backend stopped: %1</source>
        <translation>Backend angehalten: %1</translation>
    </message>
    <message>
        <source>Not signed in</source>
        <translation>Nicht angemeldet</translation>
    </message>
    <message>
        <source>Signed in</source>
        <translation>Angemeldet</translation>
    </message>
    <message>
        <source>Signed in as %1</source>
        <translation>Angemeldet als %1</translation>
    </message>
    <message>
        <source>loading folders</source>
        <translation>Ordner werden geladen</translation>
    </message>
    <message>
        <source>no folders</source>
        <translation>keine Ordner</translation>
    </message>
    <message>
        <source>%1 folder</source>
        <translation>%1 Ordner</translation>
    </message>
    <message>
        <source>%1 folders</source>
        <translation>%1 Ordner</translation>
    </message>
    <message>
        <source>%1 syncing</source>
        <translation>%1 werden synchronisiert</translation>
    </message>
    <message>
        <source>%1 with an error</source>
        <translation>%1 mit Fehler</translation>
    </message>
    <message>
        <source>%1 with errors</source>
        <translation>%1 mit Fehlern</translation>
    </message>
    <message>
        <source>Connecting to the backend ...</source>
        <translation>Verbindung zum Backend wird hergestellt ...</translation>
    </message>
</context>
<context>
    <name>tarnwick::updater::AppcastChecker</name>
    <message>
        <source>Checking for updates…</source>
        <translation>Suche nach Updates…</translation>
    </message>
    <message>
        <source>You're up to date</source>
        <translation>Du bist auf dem neuesten Stand</translation>
    </message>
    <message>
        <source>Tarnwick %1 has been downloaded</source>
        <translation>Tarnwick %1 wurde heruntergeladen</translation>
    </message>
    <message>
        <source>Tarnwick %1 is available</source>
        <translation>Tarnwick %1 ist verfügbar</translation>
    </message>
    <message>
        <source>Downloading Tarnwick %1…</source>
        <translation>Tarnwick %1 wird heruntergeladen…</translation>
    </message>
    <message>
        <source>The download of Tarnwick %1 failed: %2</source>
        <translation>Das Herunterladen von Tarnwick %1 ist fehlgeschlagen: %2</translation>
    </message>
    <message>
        <source>The update check failed: %1</source>
        <translation>Die Suche nach Updates ist fehlgeschlagen: %1</translation>
    </message>
</context>
<context>
    <name>tidepost::Error</name>
    <message>
        <source>The reply's headers are too long</source>
        <translation>Die Kopfzeilen der Antwort sind zu lang</translation>
    </message>
    <message>
        <source>The reply is not HTTP</source>
        <translation>Die Antwort ist kein HTTP</translation>
    </message>
    <message>
        <source>The reply's chunk header is not valid</source>
        <translation>Der Blockkopf der Antwort ist ungültig</translation>
    </message>
    <message>
        <source>Connection closed</source>
        <translation>Verbindung geschlossen</translation>
    </message>
    <message>
        <source>Connection refused</source>
        <translation>Verbindung abgelehnt</translation>
    </message>
</context>
</TS>