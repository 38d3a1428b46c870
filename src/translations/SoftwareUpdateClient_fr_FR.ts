<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="fr_FR">
<context>
    <name>DownloadManager</name>
    <message>
        <source>Downloaded file could not be unpacked:&lt;br&gt;</source>
        <translation>Le fichier téléchargé n&apos;a pas pu être décompressé&#xa0;:&lt;br&gt;</translation>
    </message>
    <message>
        <source>Select Installation Path for &apos;%1&apos;</source>
        <translation>Sélectionner le dossier d&apos;installation pour &apos;%1&apos;</translation>
    </message>
    <message>
        <source>Unpacking &apos;%1&apos;</source>
        <translation>Décompresser &apos;%1&apos;</translation>
    </message>
</context>
<context>
    <name>SoftwareUpdateAvailableGui</name>
    <message>
        <source>Update Available</source>
        <translation>Mise à jour disponible</translation>
    </message>
    <message>
        <source>Select Packages from List:</source>
        <translation>Sélectionnez des paquets dans la liste&#xa0;:</translation>
    </message>
    <message>
        <source>Show all languages</source>
        <translation>Afficher tous les langues</translation>
    </message>
    <message>
        <source>Release Notes</source>
        <translation>Notes de publication</translation>
    </message>
    <message>
        <source>Download Package</source>
        <translation>Télécharger package</translation>
    </message>
    <message>
        <source>Install Package</source>
        <translation>Installer package</translation>
    </message>
    <message>
        <source>Update Settings...</source>
        <translation>Paramètres de mise à jour...</translation>
    </message>
    <message>
        <source>You can download and install the package manually or start the installation immediately (only available for supported package types).</source>
        <translation>Vous pouvez télécharger et installer le paquet manuellement ou lancer l&apos;installation immédiatement (uniquement pour les types de paquets pris en charge).</translation>
    </message>
    <message>
        <source>For more information and updates visit &lt;a href=&quot;https://www.quorvel.com/support/downloads/&quot;&gt;www.quorvel.com/support&lt;/a&gt;.</source>
        <translation>Pour plus d&apos;informations et les mises à jour, consultez &lt;a href=&quot;https://www.quorvel.com/fr/support/downloads/&quot;&gt;www.quorvel.com/fr/support&lt;/a&gt;.</translation>
    </message>
</context>
<context>
    <name>SoftwareUpdateClient</name>
    <message>
        <source>No update available!</source>
        <translation>Aucune mise à jour disponible&#xa0;!</translation>
    </message>
    <message>
        <source>Congratulations! Your product is up-to-date!</source>
        <translation>Félicitations&#xa0;! Votre produit est à jour&#xa0;!</translation>
    </message>
    <message>
        <source>Timeout error! Update server unreachable!</source>
        <translation>Délai dépassé&#xa0;! Le serveur de mise à jour est injoignable&#xa0;!</translation>
    </message>
    <message>
        <source>Download Error</source>
        <translation>Erreur lors du téléchargement</translation>
    </message>
    <message>
        <source>Error downloading! Http status code %1</source>
        <translation>Erreur de téléchargement&#xa0;! Code d&apos;état HTTP %1</translation>
    </message>
    <message>
        <source>Downloading package to temporary folder...</source>
        <translation>Téléchargement du paquet dans le dossier temporaire...</translation>
    </message>
    <message>
        <source>After downloading the package, the installer will automatically exit and restart your application!</source>
        <translation>Après le téléchargement du paquet, le programme d&apos;installation fermera et redémarrera automatiquement votre application&#xa0;!</translation>
    </message>
    <message>
        <source>Install Package</source>
        <translation>Installer package</translation>
    </message>
    <message>
        <source>Cancel Install</source>
        <translation>Annuler l&apos;installation</translation>
    </message>
    <message>
        <source>Proceed</source>
        <translation>Continuer</translation>
    </message>
    <message>
        <source>Installation failed</source>
        <translation>L&apos;installation a échouée</translation>
    </message>
    <message>
        <source>Installation process failed. If problem persists try manual install.</source>
        <translation>L&apos;installation a échoué. Si le problème persiste, essayez une installation manuelle.</translation>
    </message>
    <message>
        <source>Unknown package type! Installation cannot proceed!</source>
        <translation>Type de paquet inconnu&#xa0;! L&apos;installation ne peut pas continuer&#xa0;!</translation>
    </message>
    <message>
        <source>Restart required</source>
        <translation>Redémarrage obligatoire</translation>
    </message>
    <message>
        <source>Please restart your application to finish the installation process.</source>
        <translation>Veuillez redémarrer votre application pour terminer l&apos;installation.</translation>
    </message>
    <message>
        <source>Restart now</source>
        <translation>Redémarrer maintenant</translation>
    </message>
    <message>
        <source>Restart later</source>
        <translation>Redémarrer plus tard</translation>
    </message>
    <message>
        <source>Name</source>
        <translation>Nom</translation>
    </message>
    <message>
        <source>File Type</source>
        <translation>Type du fichier</translation>
    </message>
    <message>
        <source>File Size</source>
        <translation>Taille du fichier</translation>
    </message>
    <message>
        <source>Languages</source>
        <translation>Langues</translation>
    </message>
    <message>
        <source>Platforms</source>
        <translation>Plateformes</translation>
    </message>
    <message>
        <source>Multilingual</source>
        <translation>Multilingue</translation>
    </message>
    <message>
        <source>Published on %1</source>
        <translation>Publiée le %1</translation>
    </message>
    <message>
        <source>The update catalogue is not signed with a trusted key. No updates are offered.</source>
        <translation>Le catalogue de mises à jour n&apos;est pas signé par une clé de confiance. Aucune mise à jour n&apos;est proposée.</translation>
    </message>
    <message>
        <source>The update catalogue has no publication number or expiry date. No updates are offered.</source>
        <translation>Le catalogue de mises à jour n&apos;a pas de numéro de publication ou de date d&apos;expiration. Aucune mise à jour n&apos;est proposée.</translation>
    </message>
    <message>
        <source>The update server sent an older catalogue than before. No updates are offered.</source>
        <translation>Le serveur de mises à jour a envoyé un catalogue plus ancien que le précédent. Aucune mise à jour n&apos;est proposée.</translation>
    </message>
    <message>
        <source>The update catalogue has expired. No updates are offered.</source>
        <translation>Le catalogue de mises à jour a expiré. Aucune mise à jour n&apos;est proposée.</translation>
    </message>
    <message>
        <source>The downloaded package does not match the published one. It was deleted, and nothing was installed.</source>
        <translation>Le paquet téléchargé ne correspond pas au paquet publié. Il a été supprimé et rien n&apos;a été installé.</translation>
    </message>
    <message>
        <source>The update server did not answer with an update catalogue.</source>
        <translation>Le serveur de mises à jour n&apos;a pas répondu avec un catalogue de mises à jour.</translation>
    </message>
    <message>
        <source>Update rolled back</source>
        <translation>Mise à jour annulée</translation>
    </message>
    <message>
        <source>The new version did not start, so the update was rolled back. This is the version you had before.</source>
        <translation>La nouvelle version n&apos;a pas démarré, la mise à jour a donc été annulée. Voici la version que vous aviez auparavant.</translation>
    </message>
    <message>
        <source>The package is downloaded, verified and unpacked first. You are asked before the application closes to be replaced by the new version.</source>
        <translation>Le paquet est d&apos;abord téléchargé, vérifié et décompressé. Une confirmation vous est demandée avant que l&apos;application ne se ferme pour être remplacée par la nouvelle version.</translation>
    </message>
    <message>
        <source>Downloading and verifying the package...</source>
        <translation>Téléchargement et vérification du paquet...</translation>
    </message>
    <message>
        <source>The package does not contain the program %1. Nothing was changed.</source>
        <translation>Le paquet ne contient pas le programme %1. Rien n&apos;a été modifié.</translation>
    </message>
    <message>
        <source>The new version is unpacked and verified. Restart now to install it: the application closes, is replaced, and starts again. If the new version does not start, this version comes back.</source>
        <translation>La nouvelle version est décompressée et vérifiée. Redémarrez maintenant pour l&apos;installer : l&apos;application se ferme, est remplacée et redémarre. Si la nouvelle version ne démarre pas, cette version revient.</translation>
    </message>
    <message>
        <source>The update catalogue is not signed for this update server. No updates are offered.</source>
        <translation>Le catalogue de mises à jour n&apos;est pas signé pour ce serveur de mises à jour. Aucune mise à jour n&apos;est proposée.</translation>
    </message>
    <message>
        <source>The application folder %1 can be changed by other users, so the update cannot be installed safely. Nothing was changed.</source>
        <translation>Le dossier de l&apos;application %1 peut être modifié par d&apos;autres utilisateurs&#xa0;: la mise à jour ne peut pas être installée en toute sécurité. Rien n&apos;a été modifié.</translation>
    </message>
    <message>
        <source>Version %1 is not offered again until a newer one is published.</source>
        <translation>La version %1 n&apos;est plus proposée tant qu&apos;aucune version plus récente n&apos;est publiée.</translation>
    </message>
    <message>
        <source>There is not enough free disk space to unpack the update (%1 MB needed, %2 MB free). Nothing was changed.</source>
        <translation>L&apos;espace disque libre ne suffit pas pour décompresser la mise à jour (%1 Mo nécessaires, %2 Mo libres). Rien n&apos;a été modifié.</translation>
    </message>
    <message>
        <source>The package is not one of those offered by the last check.</source>
        <translation>Ce paquet ne fait pas partie de ceux proposés lors de la dernière vérification.</translation>
    </message>
    <message>
        <source>Another update is being installed.</source>
        <translation>Une autre mise à jour est en cours d&apos;installation.</translation>
    </message>
    <message>
        <source>The download was canceled.</source>
        <translation>Le téléchargement a été annulé.</translation>
    </message>
    <message>
        <source>The package could not be unpacked: %1</source>
        <translation>Le paquet n&apos;a pas pu être décompressé&#xa0;: %1</translation>
    </message>
    <message>
        <source>The package holds %1, not the program %2: the names differ in letter case. Nothing was changed.</source>
        <translation>Le paquet contient %1 et non le programme %2&#xa0;: les noms diffèrent par la casse. Rien n&apos;a été modifié.</translation>
    </message>
    <message>
        <source>The program %1 in the package is not marked as executable (a ZIP archive made on Windows keeps no such mark). Nothing was changed.</source>
        <translation>Le programme %1 du paquet n&apos;est pas marqué comme exécutable (une archive ZIP créée sous Windows ne conserve pas cette marque). Rien n&apos;a été modifié.</translation>
    </message>
    <message>
        <source>The program %1 in the package is not a regular file. Nothing was changed.</source>
        <translation>Le programme %1 du paquet n&apos;est pas un fichier ordinaire. Rien n&apos;a été modifié.</translation>
    </message>
    <message>
        <source>Retrying in %1 s</source>
        <translation>Nouvel essai dans %1&#xa0;s</translation>
    </message>
    <message>
        <source>Downloading the update: %1 instead of the whole package (%2)...</source>
        <translation>Téléchargement de la mise à jour&#xa0;: %1 au lieu du paquet entier (%2)...</translation>
    </message>
</context>
<context>
    <name>SoftwareUpdateDialogGui</name>
    <message>
        <source>Check for Updates</source>
        <translation>Rechercher de nouveaux mises à jour</translation>
    </message>
    <message>
        <source>You can search for new versions manually or automatically.</source>
        <translation>Vous pouvez rechercher de nouvelles versions manuellement ou automatiquement.</translation>
    </message>
    <message>
        <source>Current version:</source>
        <translation>Version actuelle&#xa0;:</translation>
    </message>
    <message>
        <source>Check Now</source>
        <translation>Rechercher maintenant</translation>
    </message>
    <message>
        <source>Last check</source>
        <translation>Dernière recherche</translation>
    </message>
    <message>
        <source>Check for updates:</source>
        <translation>Rechercher des mises à jour&#xa0;:</translation>
    </message>
    <message>
        <source>At application start</source>
        <translation>Au démarrage du programme</translation>
    </message>
    <message>
        <source>Daily</source>
        <translation>Tous les jours</translation>
    </message>
    <message>
        <source>Weekly</source>
        <translation>Toutes les semaines</translation>
    </message>
    <message>
        <source>Monthly</source>
        <translation>Tous les mois</translation>
    </message>
    <message>
        <source>Include beta versions</source>
        <translation>Inclure les versions beta</translation>
    </message>
    <message>
        <source>Update server URL:</source>
        <translation>URL du serveur de mise à jour&#xa0;:</translation>
    </message>
</context>
</TS>
